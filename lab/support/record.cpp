#include "lab/support/record.h"

#include <openssl/evp.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

namespace lab {

std::string utc_now() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  struct tm parts = {};
  gmtime_r(&seconds, &parts);
  std::ostringstream text;
  text << std::put_time(&parts, "%Y-%m-%dT%H:%M:%S.") << std::setfill('0') << std::setw(3)
       << milliseconds << 'Z';
  return text.str();
}

std::string json_line(const nlohmann::ordered_json& object) {
  return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::string sha256(const std::string& bytes) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest = {};
  unsigned size = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha256(), nullptr);
  std::string text;
  for (unsigned i = 0; i < size; ++i) {
    constexpr char kDigits[] = "0123456789abcdef";
    text += kDigits[digest.at(i) >> 4U];
    text += kDigits[digest.at(i) & 0xFU];
  }
  return text;
}

void write_file(const std::string& path, const std::string& bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
  std::ostringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

std::string safe_file_name(const std::string& name) {
  constexpr std::size_t kLongest = 200;  // NAME_MAX is 255
  std::string safe = name.substr(0, kLongest);
  for (char& c : safe) {
    if (c == '/' || static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '_';
  }
  return safe.empty() || safe == "." || safe == ".." ? "unnamed" : safe;
}

}  // namespace lab
