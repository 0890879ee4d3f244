// Feeds bytes to a ReplyReader and writes down what it made of them, for tests and fuzzing.
#ifndef TESTS_COMPAT_MONGOOSE_REPLY_TRANSCRIPT_H
#define TESTS_COMPAT_MONGOOSE_REPLY_TRANSCRIPT_H

#include <algorithm>
#include <string>
#include <string_view>

#include "compat/mongoose/reply_reader.h"

namespace reply_test {

inline std::string describe(const mg_facade::Reply& reply) {
  if (!reply.usable) return "unusable\n";
  std::string text = reply.status_text + "|" + reply.reason;
  for (const auto& [name, value] : reply.headers)
    text.append("|").append(name).append("=").append(value);
  return text.append("|").append(reply.body).append("\n");
}

/// Calls `use` with each reply.
/// @param next_piece  called for the size of each piece to cut off, at least 1
/// @return whether bytes were left over that began another reply
template <typename NextPiece, typename Use>
bool read_replies(std::string_view bytes, NextPiece next_piece, Use use) {
  mg_facade::ReplyReader reader;
  while (!bytes.empty()) {
    const std::size_t piece = std::min(std::max<std::size_t>(next_piece(), 1), bytes.size());
    reader.feed(bytes.data(), piece);
    bytes.remove_prefix(piece);
    while (const auto reply = reader.next())
      use(*reply);
  }
  const auto reply = reader.finish();
  if (reply) use(*reply);
  return !reply && reader.has_bytes();
}

/// One line for each reply: "200|OK|Name=value|body", or "unusable"; "more" at the end when bytes
/// were left over that began another one.
/// @param next_piece  as for read_replies()
template <typename NextPiece>
std::string transcript(std::string_view bytes, NextPiece next_piece) {
  std::string result;
  const bool more = read_replies(bytes, next_piece,
                                 [&](const mg_facade::Reply& reply) { result += describe(reply); });
  return more ? result + "more\n" : result;
}

}  // namespace reply_test

#endif
