#include "lab/upload_server/upload_parser.h"

#include <algorithm>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/lab/requests.h"
#include "tests/support/files.h"

namespace lab {
namespace {

using test_support::gzip;
using test_support::multipart_body;
using test_support::multipart_upload;
using test_support::noise;
using test_support::post;
using testing::ElementsAre;
using testing::Pair;

struct Parsed {
  Upload upload;
  bool finished = false;
  std::string left;  // what the parser did not take
};

Parsed parse(const std::string& bytes, std::size_t piece) {
  UploadParser parser;
  std::size_t at = 0;
  while (at < bytes.size() && !parser.finished()) {
    at += parser.feed(bytes.data() + at, std::min(piece, bytes.size() - at));
  }
  Parsed result;
  result.finished = parser.finished();
  result.upload = parser.take();
  result.left = bytes.substr(at);
  return result;
}
Parsed parse(const std::string& bytes) {
  return parse(bytes, bytes.size());
}

std::string problem_of(const std::string& bytes) {
  return parse(bytes).upload.problem;
}

class InPieces : public testing::TestWithParam<std::size_t> {};
INSTANTIATE_TEST_SUITE_P(Of, InPieces, testing::Values(1, 2, 4, 13, 1'000'000));

TEST_P(InPieces, MultipartUploadEndsWhereItsLengthSays) {
  const std::string file = noise(1013);
  const std::string request = multipart_upload(file);
  const Parsed parsed = parse(request + request, GetParam());
  EXPECT_EQ(parsed.upload.problem, "");
  EXPECT_TRUE(parsed.upload.complete);
  EXPECT_EQ(parsed.upload.kind, UploadKind::kMultipart);
  EXPECT_EQ(parsed.upload.request, request);
  EXPECT_EQ(parsed.left, request);
  EXPECT_EQ(parsed.upload.target, "/v1/Upload");
  EXPECT_THAT(parsed.upload.fields,
              ElementsAre(Pair("SenderId", "AB12345678"), Pair("LogType", "TLink")));
  EXPECT_EQ(parsed.upload.file_name, "a.gz");
  EXPECT_EQ(parsed.upload.file, file);
}

TEST_P(InPieces, RawUploadEndsWithItsGzipStream) {
  const std::string first = gzip(noise(3001));
  const std::string second = gzip("the next upload");
  const Parsed parsed = parse(first + second, GetParam());
  EXPECT_EQ(parsed.upload.problem, "");
  EXPECT_TRUE(parsed.upload.complete);
  EXPECT_EQ(parsed.upload.kind, UploadKind::kRaw);
  EXPECT_EQ(parsed.upload.request, first);
  EXPECT_EQ(parsed.upload.file, first);
  EXPECT_EQ(parsed.left, second);
}

TEST_P(InPieces, HighlyCompressedRawUploadIsReadToItsEnd) {
  const std::string file = gzip(std::string(3'000'000, 'x'));
  const Parsed parsed = parse(file, GetParam());
  EXPECT_TRUE(parsed.upload.complete);
  EXPECT_EQ(parsed.upload.file, file);
}

TEST_P(InPieces, DamagedGzipStreamIsNoted) {
  std::string file = gzip(noise(500));
  file[file.size() - 6] = static_cast<char>(file[file.size() - 6] + 1);  // its checksum
  const Parsed parsed = parse(file, GetParam());
  EXPECT_TRUE(parsed.finished);
  EXPECT_EQ(parsed.upload.problem, "damaged gzip stream");
  EXPECT_FALSE(parsed.upload.complete);
}

TEST_P(InPieces, BytesOfNeitherKindAreKeptAndNoted) {
  const Parsed parsed = parse("GET / HTTP/1.1\r\n", GetParam());
  EXPECT_TRUE(parsed.finished);
  EXPECT_EQ(parsed.upload.kind, UploadKind::kUnknown);
  EXPECT_EQ(parsed.upload.problem, "neither a POST request nor a gzip stream");
}

TEST_P(InPieces, CutOffUploadKeepsWhatCame) {
  const std::string whole = multipart_upload(noise(200));
  const std::string part = whole.substr(0, whole.size() - 1);
  const Parsed parsed = parse(part, GetParam());
  EXPECT_FALSE(parsed.finished);
  EXPECT_FALSE(parsed.upload.complete);
  EXPECT_EQ(parsed.upload.problem, "cut off");
  EXPECT_EQ(parsed.upload.request, part);
}

TEST(UploadParser, EmptyFileIsSound) {
  const Parsed parsed = parse(multipart_upload(""));
  EXPECT_TRUE(parsed.upload.complete);
  EXPECT_EQ(parsed.upload.file, "");
}

TEST(UploadParser, FirstDelimiterMayStandWithoutLineEnd) {
  const Parsed parsed = parse(post(multipart_body("file").substr(2)));
  EXPECT_EQ(parsed.upload.problem, "");
  EXPECT_EQ(parsed.upload.file, "file");
}

TEST(UploadParser, FileNameMayContainQuotesAndBlanks) {
  EXPECT_EQ(parse(multipart_upload("x", "a \"b\"; name=\"c\".gz")).upload.file_name,
            "a \"b\"; name=\"c\".gz");
}

TEST(UploadParser, BoundaryMayBeQuotedAndFollowedByMore) {
  EXPECT_EQ(
      problem_of(post(multipart_body("x"), "multipart/form-data; boundary=\"bnd\"; charset=utf-8")),
      "");
}

TEST(UploadParser, HeaderNamesAreComparedWithoutCase) {
  const NamedTexts headers = {{"content-LENGTH", "5"}};
  EXPECT_EQ(value_of(headers, "Content-Length"), "5");
  EXPECT_EQ(value_of(headers, "Content"), "");
}

TEST(UploadParser, UnusableRequestsSayWhy) {
  EXPECT_EQ(problem_of("POST / HTTP/1.0\r\nContent-Length: 0\r\n\r\n"), "no HTTP/1.1 request line");
  EXPECT_EQ(problem_of("POST /\r\n\r\n"), "no HTTP/1.1 request line");
  const std::string out_of_range = "Content-Length is no number from 0 to 268435456";
  EXPECT_EQ(problem_of("POST / HTTP/1.1\r\n\r\n"), out_of_range);
  EXPECT_EQ(problem_of("POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\n"), out_of_range);
  EXPECT_EQ(problem_of("POST / HTTP/1.1\r\nContent-Length: 268435457\r\n\r\n"), out_of_range);
  EXPECT_EQ(problem_of(post("x", "text/plain")), "no multipart boundary");
  EXPECT_EQ(problem_of("POST / HTTP/1.1\r\nA: " + std::string(UploadParser::kMaxHeader, 'a')),
            "header too long");
}

TEST(UploadParser, UnusableBodiesSayWhy) {
  const std::string part = "--bnd\r\nContent-Disposition: form-data; name=\"Data\"; filename=\"a\"";
  EXPECT_EQ(problem_of(post("")), "no delimiter in the body");
  EXPECT_EQ(problem_of(post("--other--\r\n")), "no delimiter in the body");
  EXPECT_EQ(problem_of(post("--bndx")), "no line end after a delimiter");
  EXPECT_EQ(problem_of(post(part + "\r\n\r\nbytes")), "no closing delimiter");
  EXPECT_EQ(problem_of(post(part + "\r\nbytes\r\n--bnd--\r\n")), "a part without an empty line");
  EXPECT_EQ(problem_of(post("--bnd\r\nA: b\r\n\r\nbytes\r\n--bnd--\r\n")), "a part without a name");
  EXPECT_EQ(problem_of(post("--bnd--\r\n")), "no file");
  EXPECT_EQ(problem_of(post(part + "\r\n\r\n1\r\n" + part + "\r\n\r\n2\r\n--bnd--\r\n")),
            "more than one file");
  EXPECT_EQ(problem_of(post(multipart_body("x") + "more")),
            "the closing delimiter does not end the body");
}

}  // namespace
}  // namespace lab
