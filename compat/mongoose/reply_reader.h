// From a server's bytes to whole HTTP replies, however the bytes are cut into segments.
#ifndef COMPAT_MONGOOSE_REPLY_READER_H
#define COMPAT_MONGOOSE_REPLY_READER_H

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace mg_facade {

/// A reply, or (`usable` false, all else empty) the news that the bytes are none.
struct Reply {
  bool usable = false;
  int status = 0;           ///< 200 to 999
  std::string status_text;  ///< the same in three digits
  std::string reason;       ///< as sent, may be empty
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;  ///< chunks put together
};

/// Reads the replies of one connection, one after the other. The outcome depends on the bytes
/// alone, never on how they were cut. Knows no sockets; used by one thread at a time.
///
/// Lenient in two things: empty lines in front of a reply are skipped, because some servers end a
/// body with one too many; and the blank between status code and an empty reason may be missing.
/// Interim replies (1xx) are skipped, their size counts as header of the real one.
/// Replies 204 and 304 have no body. Unusable are: anything that is not HTTP/1.0 or 1.1 by
/// RFC 9112 (line ends other than CR LF included), a status below 100, and what exceeds a limit.
class ReplyReader {
 public:
  static constexpr std::size_t kMaxHeader =
      std::size_t{64} * 1024;  ///< bytes, status line included
  static constexpr std::size_t kMaxBody = std::size_t{1024} * 1024;  ///< bytes, decoded
  /// Bytes on the wire behind the header: a body in tiny chunks is several times its size.
  static constexpr std::size_t kMaxBodyOnWire = 4 * kMaxBody;

  ReplyReader();
  ~ReplyReader();
  ReplyReader(const ReplyReader&) = delete;
  ReplyReader& operator=(const ReplyReader&) = delete;

  /// Takes bytes as they came. Call next() after each call.
  void feed(const char* bytes, std::size_t size);

  /// The next whole reply, or an unusable one; nothing when more bytes are needed, and nothing any
  /// more after an unusable one.
  std::optional<Reply> next();

  /// The server has closed in order: a reply without length is complete now. Nothing when there is
  /// none, or when it was cut off.
  std::optional<Reply> finish();

  /// True when bytes lie here that next() has not used: the beginning of another reply.
  bool has_bytes() const;

 private:
  enum class Progress { kMoreNeeded, kDone, kUnusable };
  struct Parser;

  Progress read_header();
  Progress read_body();
  Progress parse_header(std::size_t size);
  std::optional<Reply> conclude(Progress progress);
  void skip_empty_lines();

  std::unique_ptr<Parser> parser_;  // stands from a header's end to its reply's end
  std::string bytes_;               // not used yet
  std::string reason_;              // of the reply whose body is being read
  std::size_t scanned_ = 0;         // of bytes_: whole header lines; of a body, shown to the parser
  std::size_t header_size_ = 0;     // of this reply so far, without bytes_
  std::size_t body_size_on_wire_ = 0;
  bool unusable_ = false;
};

}  // namespace mg_facade

#endif
