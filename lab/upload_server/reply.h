// How the upload server answers one upload.
#ifndef LAB_UPLOAD_SERVER_REPLY_H
#define LAB_UPLOAD_SERVER_REPLY_H

#include <chrono>
#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "lab/upload_server/upload_parser.h"

namespace lab {

/// When the server closes the connection by itself.
enum class CloseAt {
  kNever,
  kInRequest,    ///< after `close_after` bytes of the request
  kBeforeReply,  ///< the request was read whole; nothing is answered
  kInReply,      ///< after `close_after` bytes of the answer
  kAfterReply,
};

/// How the answer's body is delimited.
enum class Framing { kLength, kChunked, kUntilClose };

struct Reply {
  std::optional<UploadKind> only_for;  ///< answers uploads of this kind alone
  int status = 200;
  std::string reason = "OK";
  std::string body = R"({"code":1})";
  Framing framing = Framing::kLength;
  std::string raw;                     ///< when not empty: these bytes, instead of all of the above
  bool silent = false;                 ///< no answer at all, and the connection stays open
  std::chrono::milliseconds delay{0};  ///< before the answer
  CloseAt close = CloseAt::kNever;
  std::size_t close_after = 0;
  bool reset = false;     ///< closes with a reset instead of an orderly end
  std::size_t piece = 0;  ///< the answer goes out in pieces of so many bytes; 0: at once
  std::chrono::milliseconds piece_pause{1};
  std::size_t read_piece = 0;  ///< the request is read in pieces of so many bytes; 0: as it comes
  std::chrono::milliseconds read_pause{1};
};

/// Reads a reply out of a control command. Members: kind ("raw", "multipart"), status, reason,
/// body, framing ("length", "chunked", "close"), raw, silent, delay_ms, close ("never",
/// "in_request", "before_reply", "in_reply", "after_reply"), close_after, reset, piece,
/// piece_pause_ms, read_piece, read_pause_ms; all optional. "do" and "times" are passed over.
/// @throws std::invalid_argument naming a member that is unknown or has an unusable value.
Reply reply_from_json(const nlohmann::ordered_json& members);

/// The bytes of the answer.
std::string bytes_of(const Reply& reply);

}  // namespace lab

#endif
