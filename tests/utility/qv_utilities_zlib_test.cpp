#include "utility/qv_utilities_zlib.h"

#include <sys/resource.h>
#include <zlib.h>

#include <csignal>
#include <string>

#include "gtest/gtest.h"
#include "tests/support/files.h"

namespace {

using test_support::file_exists;
using test_support::noise;
using test_support::read_file;
using test_support::TempDir;
using test_support::write_file;

struct Inflated {
  std::string text;
  std::size_t compressed = 0;  // bytes of the first stream
  bool complete = false;       // its end and its checksum were seen and are right
};

// Decompresses exactly one gzip stream, without the code under test.
Inflated inflate_one_stream(std::string bytes) {
  z_stream stream = {};
  constexpr int kGzipOnly = 16 + MAX_WBITS;
  EXPECT_EQ(inflateInit2(&stream, kGzipOnly), Z_OK);
  stream.next_in = reinterpret_cast<Bytef*>(bytes.data());
  stream.avail_in = static_cast<uInt>(bytes.size());
  Inflated result;
  int status = Z_OK;
  while (status == Z_OK) {
    char piece[1000];
    stream.next_out = reinterpret_cast<Bytef*>(piece);
    stream.avail_out = sizeof piece;
    status = inflate(&stream, Z_NO_FLUSH);
    result.text.append(piece, sizeof piece - stream.avail_out);
  }
  result.compressed = bytes.size() - stream.avail_in;
  result.complete = status == Z_STREAM_END;
  inflateEnd(&stream);
  return result;
}

// Files cannot grow beyond `bytes` while this lives.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &before_), 0);
    const struct rlimit limit = {bytes, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &before_);
    static_cast<void>(std::signal(SIGXFSZ, handler_));
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  struct rlimit before_ = {};
  void (*handler_)(int);
};

class Gzip : public testing::Test {
 protected:
  TempDir dir_;
  const std::string plain_ = dir_ / "plain";
  const std::string gzip_ = dir_ / "plain.gz";
  const std::string back_ = dir_ / "back";
};

// 4096 is the size of a piece.
class GzipOfSize : public Gzip, public testing::WithParamInterface<std::size_t> {};

TEST_P(GzipOfSize, IsOneStreamOfTheSource) {
  const std::string text = noise(GetParam());
  write_file(plain_, text);
  ASSERT_EQ(qv_zlibCompress(plain_.c_str(), gzip_.c_str()), 0);

  const std::string bytes = read_file(gzip_);
  const Inflated inflated = inflate_one_stream(bytes);
  EXPECT_TRUE(inflated.complete);
  EXPECT_EQ(inflated.compressed, bytes.size()) << "something follows the stream";
  EXPECT_TRUE(inflated.text == text);
  EXPECT_TRUE(read_file(plain_) == text) << "the source is the caller's to remove";
}

TEST_P(GzipOfSize, ComesBackAsItWas) {
  const std::string text = noise(GetParam());
  write_file(plain_, text);
  ASSERT_EQ(qv_zlibCompress(plain_.c_str(), gzip_.c_str()), 0);
  ASSERT_EQ(qv_zlibDecompress(gzip_.c_str(), back_.c_str()), 0);
  EXPECT_TRUE(file_exists(back_));
  EXPECT_TRUE(read_file(back_) == text);
}

INSTANTIATE_TEST_SUITE_P(AroundThePiece, GzipOfSize,
                         testing::Values(0, 1, 4095, 4096, 4097, 8192, 1'000'003));

TEST_F(Gzip, EmptySourceGivesAValidFileWithoutData) {
  write_file(plain_, "");
  EXPECT_EQ(qv_zlibCompress(plain_.c_str(), gzip_.c_str()), 0);
  const Inflated inflated = inflate_one_stream(read_file(gzip_));
  EXPECT_TRUE(inflated.complete);
  EXPECT_EQ(inflated.text, "");
}

TEST_F(Gzip, StringFormIsTheSame) {
  write_file(plain_, "one line\n");
  EXPECT_EQ(qv_zlibCompress(plain_, gzip_), 0);
  EXPECT_EQ(inflate_one_stream(read_file(gzip_)).text, "one line\n");
  EXPECT_EQ(qv_zlibCompress(dir_ / "missing", gzip_), -1);
}

TEST_F(Gzip, CompressesAtTheDefaultLevel) {
  write_file(plain_, std::string(100'000, 'x'));
  ASSERT_EQ(qv_zlibCompress(plain_, gzip_), 0);
  const std::string bytes = read_file(gzip_);
  EXPECT_LT(bytes.size(), 500U);
  constexpr std::size_t kExtraFlags = 8;  // of the gzip header: 2 best, 4 fastest, 0 otherwise
  EXPECT_EQ(bytes.at(kExtraFlags), '\0');
}

TEST_F(Gzip, OverwritesTheDestination) {
  write_file(plain_, "short");
  write_file(gzip_, noise(5000));
  write_file(back_, noise(5000));
  ASSERT_EQ(qv_zlibCompress(plain_, gzip_), 0);
  ASSERT_EQ(qv_zlibDecompress(gzip_.c_str(), back_.c_str()), 0);
  EXPECT_EQ(read_file(back_), "short");
}

TEST_F(Gzip, CompressWithoutSourceFailsAndCreatesNothing) {
  EXPECT_EQ(qv_zlibCompress(plain_.c_str(), gzip_.c_str()), -1);
  EXPECT_FALSE(file_exists(gzip_));
}

TEST_F(Gzip, DecompressWithoutSourceFailsAndCreatesNothing) {
  EXPECT_EQ(qv_zlibDecompress(gzip_.c_str(), back_.c_str()), -1);
  EXPECT_FALSE(file_exists(back_));
}

TEST_F(Gzip, DestinationThatCannotBeOpenedFailsAndKeepsTheSource) {
  write_file(plain_, "text");
  EXPECT_EQ(qv_zlibCompress(plain_.c_str(), (dir_ / "no/such/folder.gz").c_str()), -1);
  EXPECT_EQ(read_file(plain_), "text");
  ASSERT_EQ(qv_zlibCompress(plain_, gzip_), 0);
  EXPECT_EQ(qv_zlibDecompress(gzip_.c_str(), (dir_ / "no/such/folder").c_str()), -1);
  EXPECT_TRUE(file_exists(gzip_));
}

TEST_F(Gzip, CompressIntoAFullDeviceFailsAndLeavesThePart) {
  const std::string text = noise(100'000);
  write_file(plain_, text);
  {
    const FileSizeLimit limit(20'000);
    EXPECT_EQ(qv_zlibCompress(plain_.c_str(), gzip_.c_str()), -1);
  }
  EXPECT_EQ(std::filesystem::file_size(gzip_), 20'000U);
  EXPECT_TRUE(read_file(plain_) == text);
}

TEST_F(Gzip, DecompressIntoAFullDeviceFailsAndLeavesThePart) {
  const std::string text = noise(100'000);
  write_file(plain_, text);
  ASSERT_EQ(qv_zlibCompress(plain_, gzip_), 0);
  {
    const FileSizeLimit limit(20'000);
    EXPECT_EQ(qv_zlibDecompress(gzip_.c_str(), back_.c_str()), -1);
  }
  EXPECT_TRUE(read_file(back_) == text.substr(0, 20'000));
  EXPECT_TRUE(file_exists(gzip_));
}

// zlib buffers, so the failure of a small file shows at gzclose(), whose result is not looked at.
TEST_F(Gzip, FailureThatShowsOnlyAtTheEndIsNotSeen) {
  write_file(plain_, "small");
  EXPECT_EQ(qv_zlibCompress(plain_.c_str(), "/dev/full"), 0);
}

TEST_F(Gzip, ReadErrorEndsTheCopyLikeTheEndOfTheFile) {
  const std::string folder = dir_ / "folder";  // opens, but cannot be read
  std::filesystem::create_directory(folder);
  EXPECT_EQ(qv_zlibCompress(folder.c_str(), gzip_.c_str()), 0);
  EXPECT_TRUE(inflate_one_stream(read_file(gzip_)).complete);
  EXPECT_EQ(qv_zlibDecompress(folder.c_str(), back_.c_str()), 0);
  EXPECT_TRUE(file_exists(back_));
  EXPECT_EQ(read_file(back_), "");
}

TEST_F(Gzip, SourceThatBreaksOffGivesWhatCameBefore) {
  const std::string text = noise(100'000);
  write_file(plain_, text);
  ASSERT_EQ(qv_zlibCompress(plain_, gzip_), 0);
  std::filesystem::resize_file(gzip_, 50'000);
  EXPECT_EQ(qv_zlibDecompress(gzip_.c_str(), back_.c_str()), 0);
  const std::string back = read_file(back_);
  EXPECT_GT(back.size(), 40'000U);
  EXPECT_TRUE(back == text.substr(0, back.size()));
}

TEST_F(Gzip, DamagedSourceIsNoFailureEither) {
  write_file(plain_, noise(100'000));
  ASSERT_EQ(qv_zlibCompress(plain_, gzip_), 0);
  std::string bytes = read_file(gzip_);
  bytes[bytes.size() - 6] = static_cast<char>(bytes[bytes.size() - 6] ^ 1);  // the checksum
  write_file(gzip_, bytes);
  EXPECT_EQ(qv_zlibDecompress(gzip_.c_str(), back_.c_str()), 0);
}

TEST_F(Gzip, SourceThatIsNotGzipIsCopied) {
  write_file(plain_, "no gzip at all");
  EXPECT_EQ(qv_zlibDecompress(plain_.c_str(), back_.c_str()), 0);
  EXPECT_EQ(read_file(back_), "no gzip at all");
}

TEST_F(Gzip, LeavesNoDescriptorOpen) {
  write_file(plain_, noise(10'000));
  const auto open_descriptors = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  const auto before = open_descriptors();
  for (int i = 0; i < 20; ++i) {
    qv_zlibCompress(plain_, gzip_);
    qv_zlibCompress(plain_, dir_ / "no/folder");
    qv_zlibCompress(plain_.c_str(), "/dev/full");
    qv_zlibDecompress(gzip_.c_str(), back_.c_str());
    qv_zlibDecompress(gzip_.c_str(), (dir_ / "no/folder").c_str());
    qv_zlibDecompress(gzip_.c_str(), "/dev/full");
  }
  EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
