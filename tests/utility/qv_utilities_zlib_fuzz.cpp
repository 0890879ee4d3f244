// Any bytes as the gzip helpers' input: what is compressed comes back, what is no gzip file comes
// through as it is, and a broken one gives a file and an end.
#include "tests/support/files.h"
#include "tests/support/fuzz.h"
#include "utility/qv_utilities_zlib.h"

namespace {

using test_support::must_hold;
using test_support::read_file;

bool is_gzip(const std::string& bytes) {
  return bytes.compare(0, 2, "\x1f\x8b") == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const test_support::TempDir folder;
  static const std::string source = folder / "source";
  static const std::string packed = folder / "packed";
  static const std::string unpacked = folder / "unpacked";
  const std::string input = test_support::fuzz_text(data, size);
  test_support::write_file(source, input);

  must_hold(qv_zlibDecompress(source.c_str(), unpacked.c_str()) == 0, "a read error counts as end");
  const std::string output = read_file(unpacked);
  must_hold(is_gzip(input) || output == input, "what is no gzip file is copied");

  for (const std::string& plain : {source, unpacked}) {
    must_hold(qv_zlibCompress(plain, packed) == 0, "packed");
    must_hold(is_gzip(read_file(packed)), "as a gzip file");
    const std::string again = folder / "again";
    must_hold(qv_zlibDecompress(packed.c_str(), again.c_str()) == 0, "unpacked");
    must_hold(read_file(again) == read_file(plain), "every byte");
  }
  must_hold(read_file(source) == input, "the source is left alone");
  return 0;
}
