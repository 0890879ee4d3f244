// Any bytes as the gzip helpers' input: what is compressed comes back, what is no gzip file comes
// through as it is, a gzip file gives what is in it, and a broken one the beginning of that.
#include <sys/mman.h>
#include <zlib.h>

#include <array>

#include "tests/support/files.h"
#include "tests/support/fuzz.h"
#include "utility/qv_utilities_zlib.h"

namespace {

using test_support::must_hold;
using test_support::read_file;

// The path of a new file that no disk has to write: each input writes five.
std::string memory_file(const char* name) {
  const int descriptor = memfd_create(name, MFD_CLOEXEC);
  must_hold(descriptor != -1, "a file in memory");
  return "/proc/self/fd/" + std::to_string(descriptor);
}

bool is_gzip(const std::string& bytes) {
  return bytes.compare(0, 2, "\x1f\x8b") == 0;
}

struct Inflated {
  std::string bytes;
  bool whole = false;  // every gzip member has its end and a right checksum
};

// The members of a gzip file, in memory. What follows the last one does not count.
Inflated inflated(std::string input) {
  Inflated result;
  while (is_gzip(input)) {
    z_stream stream = {};
    constexpr int kGzipOnly = 15 + 16;
    must_hold(inflateInit2(&stream, kGzipOnly) == Z_OK, "memory");
    stream.next_in = reinterpret_cast<Bytef*>(input.data());
    stream.avail_in = static_cast<uInt>(input.size());
    int status = Z_OK;
    while (status == Z_OK) {
      std::array<Bytef, 1000> piece = {};
      stream.next_out = piece.data();
      stream.avail_out = piece.size();
      status = inflate(&stream, Z_NO_FLUSH);
      result.bytes.append(piece.data(), piece.data() + (piece.size() - stream.avail_out));
    }
    result.whole = status == Z_STREAM_END;
    input.erase(0, input.size() - stream.avail_in);
    inflateEnd(&stream);
    if (!result.whole) return result;
  }
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string source = memory_file("source");
  static const std::string packed = memory_file("packed");
  static const std::string unpacked = memory_file("unpacked");
  static const std::string again = memory_file("again");
  const std::string input = test_support::fuzz_text(data, size);
  test_support::write_file(source, input);

  must_hold(qv_zlibDecompress(source.c_str(), unpacked.c_str()) == 0, "a read error counts as end");
  const std::string output = read_file(unpacked);
  if (is_gzip(input)) {
    const Inflated expected = inflated(input);
    must_hold(expected.bytes.compare(0, output.size(), output) == 0, "nothing else comes out");
    must_hold(output == expected.bytes || !expected.whole, "all of it comes out");
  } else {
    must_hold(output == input, "what is no gzip file is copied");
  }

  for (const std::string& plain : {source, unpacked}) {
    must_hold(qv_zlibCompress(plain, packed) == 0, "packed");
    must_hold(is_gzip(read_file(packed)), "as a gzip file");
    must_hold(qv_zlibDecompress(packed.c_str(), again.c_str()) == 0, "unpacked");
    must_hold(read_file(again) == read_file(plain), "every byte");
  }
  must_hold(read_file(source) == input, "the source is left alone");
  return 0;
}
