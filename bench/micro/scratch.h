// A folder of a benchmark's own.
#ifndef BENCH_MICRO_SCRATCH_H
#define BENCH_MICRO_SCRATCH_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

/// A new folder under TMPDIR (/tmp where that is not set), removed with everything in it at the
/// end.
class Scratch {
 public:
  Scratch() : path_((std::filesystem::temp_directory_path() / "micro_bench.XXXXXX").string()) {
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no folder " + path_);
  }
  ~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  const std::string& path() const { return path_; }

  /// @param bytes  a container of characters
  template <typename Bytes>
  void write(const std::string& name, const Bytes& bytes) const {
    std::ofstream(path_ + "/" + name, std::ios::binary)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }

 private:
  std::string path_;
};

#endif
