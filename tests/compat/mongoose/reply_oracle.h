// Judges the replies that were read from a server's bytes, by rules of its own: it shares no code
// with ReplyReader, and looks for less.
#ifndef TESTS_COMPAT_MONGOOSE_REPLY_ORACLE_H
#define TESTS_COMPAT_MONGOOSE_REPLY_ORACLE_H

#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>

#include "compat/mongoose/reply_reader.h"
#include "tests/support/fuzz.h"

namespace reply_test {

/// Walks through the bytes of one connection, from each reply to the next. Each usable one must
/// have begun there with a status line of HTTP/1.0 or 1.1 (behind empty lines and interim replies)
/// with its very code and reason, none below 200, and its body must be the bytes behind the head:
/// as many as its length says, its chunks put together, or all.
///
/// Whether an unusable reply, or none, is right is not judged.
class ReplyOracle {
 public:
  /// @param bytes  all that the server sent before it closed in order; outlives the oracle
  explicit ReplyOracle(std::string_view bytes) : rest_(bytes) {}

  /// Ends the run if this cannot be the next reply.
  void judge(const mg_facade::Reply& reply) {
    if (lost_) return;
    must_hold(!over_, "nothing comes behind an unusable reply");
    over_ = !reply.usable;
    if (!over_) judge_usable(reply);
  }

 private:
  static constexpr std::size_t kCodePlace = 9;  // in "HTTP/1.1 200 OK"
  static constexpr std::size_t kCodeSize = 3;
  static constexpr std::size_t kLongestHead = 65536;  // interim replies included
  static constexpr std::size_t kLongestBody = 1048576;

  static void must_hold(bool condition, const char* what) {
    test_support::must_hold(condition, what);
  }

  void judge_usable(const mg_facade::Reply& reply) {
    const std::size_t before = rest_.size();
    std::string_view line = take_head();
    while (line.substr(kCodePlace, 1) == "1")
      line = take_head();
    must_hold(before - rest_.size() <= kLongestHead, "a head is at most 64 KiB");
    must_hold(reply.body.size() <= kLongestBody, "a body is at most 1 MiB");
    const std::string_view code = line.substr(kCodePlace, kCodeSize);
    const std::string_view reason = line.substr(kCodePlace + kCodeSize);
    must_hold(code[0] >= '2', "interim replies are not given");
    must_hold(reply.status_text == code, "the code is the status line's");
    must_hold(std::to_string(reply.status) == code, "the number is the status line's");
    must_hold(reply.reason == reason.substr(reason.empty() ? 0 : 1), "the reason is as sent");
    const std::optional<std::string> body = take_body(reply, code);
    must_hold(!body || reply.body == *body, "the body is the bytes behind the head");
  }

  // The status line of the next head, without its end.
  std::string_view take_head() {
    rest_.remove_prefix(std::min(rest_.find_first_not_of("\r\n"), rest_.size()));
    const std::size_t end = rest_.find("\r\n\r\n");
    must_hold(end != std::string_view::npos, "a reply has a whole head");
    const std::string_view line = rest_.substr(0, rest_.find("\r\n"));
    must_hold(is_status_line(line), "a reply begins with a status line");
    rest_.remove_prefix(end + 4);
    return line;
  }

  static bool is_status_line(std::string_view line) {
    if (line.size() < kCodePlace + kCodeSize) return false;
    const std::string_view version = line.substr(0, kCodePlace);
    const std::string_view code = line.substr(kCodePlace, kCodeSize);
    return (version == "HTTP/1.0 " || version == "HTTP/1.1 ") &&
           code.find_first_not_of("0123456789") == std::string_view::npos &&
           line.substr(kCodePlace + kCodeSize, 1).find_first_not_of(' ') == std::string_view::npos;
  }

  // Nothing when it cannot be said, and then nothing about later replies either.
  std::optional<std::string> take_body(const mg_facade::Reply& reply, std::string_view code) {
    if (code == "204" || code == "304") return "";
    if (const auto length = header(reply, "content-length")) return take(number(*length, 10));
    if (const auto coding = header(reply, "transfer-encoding")) {
      if (*coding == "chunked" || *coding == "gzip, chunked") return take_chunks();
      lost_ = coding->find("chunked") != std::string::npos;  // a list in need of a parser
      if (lost_) return std::nullopt;
    }
    return take(rest_.size());
  }

  // Text in quotes may go on over the end of a chunk's line, so there is no telling where the data
  // begin.
  std::optional<std::string> take_chunks() {
    std::string body;
    for (;;) {
      const std::string_view line = rest_.substr(0, rest_.find("\r\n"));
      lost_ = line.find('"') != std::string_view::npos;
      if (lost_) return std::nullopt;
      const std::size_t size = number(line, 16);
      rest_.remove_prefix(line.size());
      if (size == 0) break;
      must_hold(take(2) == "\r\n", "a chunk's size has a line of its own");
      body += take(size);
      must_hold(take(2) == "\r\n", "a line ends behind a chunk's data");
    }
    const std::size_t end = rest_.find("\r\n\r\n");
    must_hold(end != std::string_view::npos, "an empty line ends the chunks");
    rest_.remove_prefix(end + 4);
    return body;
  }

  std::string take(std::size_t size) {
    must_hold(size <= rest_.size(), "a body is whole");
    std::string taken(rest_.substr(0, size));
    rest_.remove_prefix(size);
    return taken;
  }

  // Of the digits that the text begins with.
  static std::size_t number(std::string_view text, int base) {
    std::size_t value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value, base);
    must_hold(result.ec == std::errc(), "a length is a number");
    return value;
  }

  static std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](char c) {
      return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    });
    return text;
  }

  // The last of this name in small letters.
  static std::optional<std::string> header(const mg_facade::Reply& reply, std::string_view name) {
    std::optional<std::string> found;
    for (const auto& [sent_name, value] : reply.headers) {
      if (lower(sent_name) == name) found = lower(value);
    }
    return found;
  }

  std::string_view rest_;
  bool over_ = false;
  bool lost_ = false;
};

}  // namespace reply_test

#endif
