// What the lab's programs write down: one JSON object a line.
#ifndef LAB_SUPPORT_RECORD_H
#define LAB_SUPPORT_RECORD_H

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace lab {

/// The present time, UTC, as "2026-02-03T09:05:00.123Z".
std::string utc_now();

/// One line of JSON without its newline. Bytes that are no UTF-8 become U+FFFD.
std::string json_line(const nlohmann::ordered_json& object);

/// SHA-256 of the bytes, 64 lower-case hexadecimal digits.
std::string sha256(const std::string& bytes);

/// Writes a whole file. @throws std::runtime_error naming the path.
void write_file(const std::string& path, const std::string& bytes);

/// Reads a whole file. @throws std::runtime_error naming the path.
std::string read_file(const std::string& path);

/// `name` as the last part of a path: "/" and control characters become "_", and it is never
/// empty, "." or "..", nor longer than a file system allows beside a short prefix.
std::string safe_file_name(const std::string& name);

}  // namespace lab

#endif
