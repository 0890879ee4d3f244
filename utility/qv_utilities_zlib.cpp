#include "utility/qv_utilities_zlib.h"

#include <zlib.h>

#include <cstdio>
#include <memory>
#include <vector>

// zlib.h then declares the functions of its library that were made for such files.
static_assert(sizeof(z_off_t) == 8, "compile with _FILE_OFFSET_BITS=64");

namespace {

constexpr unsigned kChunk = 4096;

struct CloseFile {
  void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

struct CloseGzip {
  void operator()(gzFile file) const { static_cast<void>(gzclose(file)); }
};
using GzipFile = std::unique_ptr<gzFile_s, CloseGzip>;

// Moves pieces from `read` to `write` until there is nothing more to read.
//   int read(char* buffer, unsigned size)          bytes read, less than 1 at the end
//   bool write(const char* buffer, unsigned size)  whether all bytes were taken
template <typename Read, typename Write>
int copy(Read read, Write write) {
  std::vector<char> buffer(kChunk);
  for (;;) {
    const int size = read(buffer.data(), kChunk);
    if (size < 1) return 0;
    if (!write(buffer.data(), static_cast<unsigned>(size))) return -1;
  }
}

}  // namespace

int qv_zlibCompress(const char* inFileName, const char* outFileName) {
  const File source(std::fopen(inFileName, "rb"));
  if (!source) return -1;
  const GzipFile destination(gzopen(outFileName, "wb"));
  if (!destination) return -1;
  return copy(
      [&](char* buffer, unsigned size) {
        return static_cast<int>(std::fread(buffer, 1, size, source.get()));
      },
      [&](const char* buffer, unsigned size) {
        return gzwrite(destination.get(), buffer, size) >= static_cast<int>(size);
      });
}

int qv_zlibDecompress(const char* inFileName, const char* outFileName) {
  const GzipFile source(gzopen(inFileName, "rb"));
  if (!source) return -1;
  const File destination(std::fopen(outFileName, "wb"));
  if (!destination) return -1;
  return copy([&](char* buffer, unsigned size) { return gzread(source.get(), buffer, size); },
              [&](const char* buffer, unsigned size) {
                return std::fwrite(buffer, 1, size, destination.get()) == size;
              });
}
