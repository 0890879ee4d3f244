// Files for tests: a folder of the test's own, whole files in and out.
#ifndef TESTS_SUPPORT_FILES_H
#define TESTS_SUPPORT_FILES_H

#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

namespace test_support {

/// A new empty folder under /tmp, deleted with all that is in it at the end of the scope.
class TempDir {
 public:
  TempDir() {
    std::string name = "/tmp/log_consumer_test.XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
    path_ = name;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

/// For the scope, this thread meets the permissions of files as an ordinary user does, also when
/// the tests run as root. (Programs that it starts meet them as before.)
class OrdinaryFilePermissions {
 public:
  OrdinaryFilePermissions() {
    constexpr uid_t kNobody = 65534;
    if (geteuid() == 0) setfsuid(kNobody);
  }
  ~OrdinaryFilePermissions() { setfsuid(geteuid()); }
  OrdinaryFilePermissions(const OrdinaryFilePermissions&) = delete;
  OrdinaryFilePermissions& operator=(const OrdinaryFilePermissions&) = delete;
};

inline bool file_exists(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0;
}

/// The permission bits, e.g. 0644; -1 when there is no such file.
inline int file_mode(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 ? static_cast<int>(status.st_mode & 07777U) : -1;
}

/// The whole file; empty when it cannot be read.
inline std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

/// Creates or replaces a file, with exactly this mode.
inline void write_file(const std::string& path, const std::string& bytes, mode_t mode = 0644) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << bytes << std::flush;
  if (!file || chmod(path.c_str(), mode) != 0) {
    throw std::system_error(errno, std::generic_category(), "write " + path);
  }
}

/// Bytes without a pattern that repeats or compresses; the same for the same seed.
inline std::string noise(std::size_t size, std::uint32_t seed = 1) {
  std::string bytes(size, '\0');
  std::uint64_t state = seed;
  for (char& byte : bytes) {
    state = state * 6364136223846793005U + 1442695040888963407U;
    byte = static_cast<char>(state >> 56U);
  }
  return bytes;
}

}  // namespace test_support

#endif
