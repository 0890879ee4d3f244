#include "lab/upload_server/reply.h"

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

namespace lab {
namespace {

using Json = nlohmann::ordered_json;

// Thrown by the readers below without the member's name, which reply_from_json() adds.
std::invalid_argument unusable() {
  return std::invalid_argument("has an unusable value");
}

long number(const Json& value) {
  constexpr long kGreatest = 1'000'000'000;
  if (!value.is_number_unsigned() || value.get<std::uint64_t>() > kGreatest) throw unusable();
  return value.get<long>();
}
std::size_t size(const Json& value) {
  return static_cast<std::size_t>(number(value));
}
std::chrono::milliseconds milliseconds(const Json& value) {
  return std::chrono::milliseconds(number(value));
}
std::string text(const Json& value) {
  if (!value.is_string()) throw unusable();
  return value.get<std::string>();
}
bool boolean(const Json& value) {
  if (!value.is_boolean()) throw unusable();
  return value.get<bool>();
}

template <typename T>
T choice(const Json& value, const std::map<std::string, T>& choices) {
  const auto found = choices.find(text(value));
  if (found == choices.end()) throw unusable();
  return found->second;
}

using Setter = std::function<void(Reply&, const Json&)>;

const std::map<std::string, Setter>& setters() {
  static const std::map<std::string, Setter> table = {
      {"do", [](Reply&, const Json&) {}},
      {"times", [](Reply&, const Json&) {}},
      {"kind",
       [](Reply& r, const Json& v) {
         r.only_for = choice<UploadKind>(
             v, {{"raw", UploadKind::kRaw}, {"multipart", UploadKind::kMultipart}});
       }},
      {"status", [](Reply& r, const Json& v) { r.status = static_cast<int>(number(v)); }},
      {"reason", [](Reply& r, const Json& v) { r.reason = text(v); }},
      {"body", [](Reply& r, const Json& v) { r.body = text(v); }},
      {"framing",
       [](Reply& r, const Json& v) {
         r.framing = choice<Framing>(v, {{"length", Framing::kLength},
                                         {"chunked", Framing::kChunked},
                                         {"close", Framing::kUntilClose}});
       }},
      {"raw", [](Reply& r, const Json& v) { r.raw = text(v); }},
      {"silent", [](Reply& r, const Json& v) { r.silent = boolean(v); }},
      {"delay_ms", [](Reply& r, const Json& v) { r.delay = milliseconds(v); }},
      {"close",
       [](Reply& r, const Json& v) {
         r.close = choice<CloseAt>(v, {{"never", CloseAt::kNever},
                                       {"in_request", CloseAt::kInRequest},
                                       {"before_reply", CloseAt::kBeforeReply},
                                       {"in_reply", CloseAt::kInReply},
                                       {"after_reply", CloseAt::kAfterReply}});
       }},
      {"close_after", [](Reply& r, const Json& v) { r.close_after = size(v); }},
      {"reset", [](Reply& r, const Json& v) { r.reset = boolean(v); }},
      {"piece", [](Reply& r, const Json& v) { r.piece = size(v); }},
      {"piece_pause_ms", [](Reply& r, const Json& v) { r.piece_pause = milliseconds(v); }},
      {"read_piece", [](Reply& r, const Json& v) { r.read_piece = size(v); }},
      {"read_pause_ms", [](Reply& r, const Json& v) { r.read_pause = milliseconds(v); }},
  };
  return table;
}

}  // namespace

Reply reply_from_json(const Json& members) {
  Reply reply;
  for (const auto& [name, value] : members.items()) {
    const auto setter = setters().find(name);
    if (setter == setters().end()) throw std::invalid_argument("no such member: " + name);
    try {
      setter->second(reply, value);
    } catch (const std::invalid_argument& error) {
      throw std::invalid_argument("member " + name + " " + error.what());
    }
  }
  return reply;
}

std::string bytes_of(const Reply& reply) {
  if (!reply.raw.empty()) return reply.raw;
  std::ostringstream bytes;
  bytes << "HTTP/1.1 " << reply.status << " " << reply.reason << "\r\n"
        << "Content-Type: application/json\r\n";
  switch (reply.framing) {
    case Framing::kLength:
      bytes << "Content-Length: " << reply.body.size() << "\r\n\r\n" << reply.body;
      break;
    case Framing::kChunked: {
      const std::size_t half = reply.body.size() / 2;
      bytes << "Transfer-Encoding: chunked\r\n\r\n" << std::hex;
      for (const std::string& chunk : {reply.body.substr(0, half), reply.body.substr(half)}) {
        if (!chunk.empty()) bytes << chunk.size() << "\r\n" << chunk << "\r\n";
      }
      bytes << "0\r\n\r\n";
      break;
    }
    case Framing::kUntilClose:
      bytes << "Connection: close\r\n\r\n" << reply.body;
      break;
  }
  return bytes.str();
}

}  // namespace lab
