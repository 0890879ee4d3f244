#include "tests/log_consumer/activity_log_fixture.h"

#include <unistd.h>

#include "utility/qv_utilities_zlib.h"

std::string test_support::gunzip(const std::string& path) {
  const TempDir dir;
  EXPECT_EQ(qv_zlibDecompress(path.c_str(), (dir / "plain").c_str()), 0) << path;
  return read_file(dir / "plain");
}

// Goes before the C library's: waiting for the disks of the whole machine proves nothing, that it
// is asked for at the right moment does.
extern "C" void sync() noexcept {
  test_support::note("sync");
}
