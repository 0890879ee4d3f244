// Every shape of reply, cut into pieces of 1, 2, 4, 13 and all bytes.
#include "compat/mongoose/reply_reader.h"

#include "gtest/gtest.h"
#include "tests/compat/mongoose/reply_transcript.h"

namespace {

constexpr std::size_t kAll = 1u << 30;
constexpr std::size_t kHeaderLimit = std::size_t{64} * 1024;
constexpr std::size_t kBodyLimit = std::size_t{1024} * 1024;

class Replies : public testing::TestWithParam<std::size_t> {
 protected:
  static std::string read(const std::string& bytes) {
    return reply_test::transcript(bytes, [] { return GetParam(); });
  }
};

std::string cut_name(const testing::TestParamInfo<std::size_t>& cut) {
  return cut.param == kAll ? "all" : std::to_string(cut.param);
}
INSTANTIATE_TEST_SUITE_P(Cut, Replies, testing::Values(1, 2, 4, 13, kAll), cut_name);

// No two parts of it are alike, and it holds NUL, CR and LF.
std::string pattern(std::size_t size) {
  std::string bytes;
  std::uint32_t state = 12345;
  while (bytes.size() < size) {
    state = state * 1664525u + 1013904223u;
    bytes.push_back(static_cast<char>(state >> 24));
  }
  return bytes;
}

std::string with_length(const std::string& body) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string length_line(std::size_t size) {
  return "Content-Length=" + std::to_string(size);
}

// A reply with an empty body whose header is exactly `size` bytes long.
std::string with_header_size(std::size_t size) {
  const std::string begin = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n";
  std::string header = begin;
  while (header.size() + 200 < size)
    header += "X-Fill: " + std::string(90, 'f') + "\r\n";
  header += "X-Last: ";
  header.append(size - header.size() - 4, 'l');
  return header + "\r\n\r\n";
}

TEST_P(Replies, WithALength) {
  EXPECT_EQ(read(with_length("hello")), "200|OK|Content-Length=5|hello\n");
}

TEST_P(Replies, WithoutABody) {
  EXPECT_EQ(read("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n"),
            "404|Not Found|Content-Length=0|\n");
}

TEST_P(Replies, WithABinaryBodyOfOddSize) {
  const std::string body = pattern(4099);
  EXPECT_EQ(read(with_length(body)), "200|OK|" + length_line(4099) + "|" + body + "\n");
}

TEST_P(Replies, InChunks) {
  EXPECT_EQ(read("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                 "5\r\nhello\r\n1;name=\"value\"\r\n,\r\n00C\r\n wide world!\r\n0\r\n\r\n"),
            "200|OK|Transfer-Encoding=chunked|hello, wide world!\n");
}

TEST_P(Replies, InNoChunkAtAll) {
  EXPECT_EQ(read("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"),
            "200|OK|Transfer-Encoding=chunked|\n");
}

TEST_P(Replies, InChunksWithATrailer) {
  EXPECT_EQ(read("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                 "2\r\nab\r\n0\r\nDigest: 77\r\n\r\n"),
            "200|OK|Transfer-Encoding=chunked|Digest=77|ab\n");
}

TEST_P(Replies, WithoutALengthEndAtTheClose) {
  EXPECT_EQ(read("HTTP/1.0 200 OK\r\n\r\nall that comes"), "200|OK|all that comes\n");
}

TEST_P(Replies, WithoutALengthAndWithoutABodyEndAtTheClose) {
  EXPECT_EQ(read("HTTP/1.1 200 OK\r\n\r\n"), "200|OK|\n");
}

TEST_P(Replies, InterimOnesAreSkipped) {
  EXPECT_EQ(read("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Early Hints\r\nLink: a\r\n\r\n" +
                 with_length("x")),
            "200|OK|Content-Length=1|x\n");
}

TEST_P(Replies, NoContentAndNotModifiedHaveNoBody) {
  EXPECT_EQ(read("HTTP/1.1 204 No Content\r\n\r\nHTTP/1.1 304 Not Modified\r\n"
                 "Content-Length: 7\r\n\r\n" +
                 with_length("x")),
            "204|No Content|\n304|Not Modified|Content-Length=7|\n200|OK|Content-Length=1|x\n");
}

TEST_P(Replies, WithAnEmptyReason) {
  EXPECT_EQ(read("HTTP/1.1 500 \r\nContent-Length: 0\r\n\r\n"), "500||Content-Length=0|\n");
}

TEST_P(Replies, WithoutTheBlankBehindTheCode) {
  EXPECT_EQ(read("HTTP/1.1 200\r\nContent-Length: 1\r\n\r\nx"), "200||Content-Length=1|x\n");
}

TEST_P(Replies, EmptyLinesBetweenThemAreSkipped) {
  EXPECT_EQ(read("\r\n" + with_length("one") + "\r\n\n" + with_length("two") + "\r\n"),
            "200|OK|Content-Length=3|one\n200|OK|Content-Length=3|two\n");
}

TEST_P(Replies, TheBeginningOfAnotherIsLeftOver) {
  EXPECT_EQ(read(with_length("one") + "HTT"), "200|OK|Content-Length=3|one\nmore\n");
}

TEST_P(Replies, CutOffAreNone) {
  const std::string whole =
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n";
  for (std::size_t size = 1; size < whole.size(); ++size) {
    EXPECT_EQ(read(whole.substr(0, size)).find("200"), std::string::npos) << size;
  }
  const std::string body = with_length("hello");
  EXPECT_EQ(read(body.substr(0, body.size() - 1)), "");
}

TEST_P(Replies, OtherBytesAreUnusable) {
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  for (const std::string& bytes : {
           std::string("SSH-2.0-server\r\n"),
           std::string(1, '\0'),
           std::string("<html>"),
           std::string("http/1.1 200 OK\r\n\r\n"),
           std::string("HTTP/2.0 200 OK\r\n\r\n"),
           std::string("HTTP/1.2 200 OK\r\n\r\n"),
           std::string("HTTP/1.1  200 OK\r\n\r\n"),
           std::string("HTTP/1.1 2x0 OK\r\n\r\n"),
           std::string("HTTP/1.1 2000 OK\r\n\r\n"),
           std::string("HTTP/1.1 099 Low\r\n\r\n"),
           std::string("HTTP/1.1 200 OK\n\n"),
           std::string("HTTP/1.1\r\n\r\n"),
           ok + "no colon\r\n\r\n",
           ok + ": no name\r\n\r\n",
           ok + "Bare: line\rfeed\r\n\r\n",
           ok + "Content-Length: -1\r\n\r\n",
           ok + "Content-Length: 1\r\nContent-Length: 2\r\n\r\n",
           ok + "Content-Length: 99999999999999999999\r\n\r\n",
           ok + "Content-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n",
           ok + "Transfer-Encoding: chunked\r\n\r\nnot hexadecimal\r\n",
           ok + "Transfer-Encoding: chunked\r\n\r\n1\r\nabcd\r\n",
           ok + "Transfer-Encoding: chunked\r\n\r\nFFFFFFFFFFFFFFFFF\r\n",
           ok + "Transfer-Encoding: chunked\r\n\r\n1 junk\r\na\r\n0\r\n\r\n",
           ok + "Transfer-Encoding: chunked\r\n\r\n1;a=\"\r\n\"\r\na\r\n0\r\n\r\n",
       }) {
    EXPECT_EQ(read(bytes), "unusable\n") << bytes;
  }
}

TEST_P(Replies, OpenQuoteInAChunksHeadMeansTheSameHoweverCut) {
  const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  EXPECT_EQ(read(chunked + "1;a=\"\r\na\r\n0\r\n\r\n"), "more\n");
  EXPECT_EQ(read(chunked + "5BBBB;a=\"\xa2\r\nT\xa2 and more"), "unusable\n");
}

TEST_P(Replies, BehindAnUnusableOneNothingIsRead) {
  EXPECT_EQ(read("garbage" + with_length("hello")), "unusable\n");
}

TEST_P(Replies, HeaderUpToTheLimit) {
  const std::string reply = with_header_size(kHeaderLimit);
  ASSERT_EQ(reply.size(), kHeaderLimit);
  EXPECT_EQ(read(reply).substr(0, 7), "200|OK|");
}

TEST_P(Replies, HeaderBeyondTheLimitIsUnusable) {
  EXPECT_EQ(read(with_header_size(kHeaderLimit + 1)), "unusable\n");
}

TEST_P(Replies, HeaderWithoutEndIsUnusable) {
  EXPECT_EQ(read("HTTP/1.1 200 " + std::string(kHeaderLimit, 'a')), "unusable\n");
}

TEST_P(Replies, InterimOnesWithoutEndAreUnusable) {
  std::string interim;
  while (interim.size() <= kHeaderLimit)
    interim += "HTTP/1.1 100 Continue\r\n\r\n";
  EXPECT_EQ(read(interim), "unusable\n");
}

TEST_P(Replies, EmptyLinesWithoutEndAreUnusable) {
  EXPECT_EQ(read(std::string(kHeaderLimit + 1, '\n')), "unusable\n");
}

TEST_P(Replies, BodyUpToTheLimit) {
  const std::string body = pattern(kBodyLimit);
  const std::string end = "|" + body + "\n";
  EXPECT_EQ(read(with_length(body)), "200|OK|" + length_line(kBodyLimit) + end);
  EXPECT_EQ(read("HTTP/1.1 200 OK\r\n\r\n" + body), "200|OK" + end);
  EXPECT_EQ(read("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nFFFFF\r\n" +
                 body.substr(0, kBodyLimit - 1) + "\r\n1\r\n" + body.substr(kBodyLimit - 1) +
                 "\r\n0\r\n\r\n"),
            "200|OK|Transfer-Encoding=chunked" + end);
}

TEST_P(Replies, BodyBeyondTheLimitIsUnusable) {
  const std::string body = pattern(kBodyLimit + 1);
  EXPECT_EQ(read(with_length(body)), "unusable\n");
  EXPECT_EQ(read("HTTP/1.1 200 OK\r\n\r\n" + body), "unusable\n");
  EXPECT_EQ(
      read("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n100000\r\n" +
           body.substr(0, kBodyLimit) + "\r\n1\r\n" + body.substr(kBodyLimit) + "\r\n0\r\n\r\n"),
      "unusable\n");
}

TEST_P(Replies, FramingWithoutEndIsUnusable) {
  const std::string begin = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  const std::size_t limit = mg_facade::ReplyReader::kMaxBodyOnWire;
  EXPECT_EQ(read(begin + "1;" + std::string(limit, 'x')), "unusable\n");
  std::string chunks;
  const std::string chunk = "1;" + std::string(1000, 'x') + "\r\na\r\n";
  while (chunks.size() <= limit)
    chunks += chunk;
  EXPECT_EQ(read(begin + chunks + "0\r\n\r\n"), "unusable\n");
}

}  // namespace
