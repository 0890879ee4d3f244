#include "compat/mongoose/reply_reader.h"

// One assertion in Beast's chunk parser does not hold when "0\r\n\r" has come and the last "\n" has
// not; a peer's bytes must never end the process. The parser works without it.
#define BOOST_DISABLE_ASSERTS
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

#include <algorithm>
#include <string_view>

namespace mg_facade {

namespace http = boost::beast::http;
using boost::beast::error_code;

struct ReplyReader::Parser : http::response_parser<http::string_body> {};

namespace {

constexpr std::string_view kProtocol = "HTTP/1.";
constexpr std::size_t kReasonPlace = std::string_view("HTTP/1.1 200 ").size();

bool may_become_http(std::string_view bytes) {
  const std::size_t size = std::min(bytes.size(), kProtocol.size());
  return bytes.substr(0, size) == kProtocol.substr(0, size);
}

std::string to_text(boost::beast::string_view text) {
  return std::string(text.data(), text.size());
}

}  // namespace

ReplyReader::ReplyReader() = default;
ReplyReader::~ReplyReader() = default;

void ReplyReader::feed(const char* bytes, std::size_t size) {
  if (unusable_) return;
  bytes_.append(bytes, size);
  if (!parser_) skip_empty_lines();
}

bool ReplyReader::has_bytes() const {
  return !bytes_.empty() || header_size_ > kMaxHeader;
}

void ReplyReader::skip_empty_lines() {
  const std::size_t text = std::min(bytes_.find_first_not_of("\r\n"), bytes_.size());
  header_size_ += text;
  bytes_.erase(0, text);
}

std::optional<Reply> ReplyReader::next() {
  if (unusable_) return std::nullopt;
  while (!parser_) {
    const Progress progress = read_header();
    if (progress != Progress::kDone) return conclude(progress);
  }
  return conclude(read_body());
}

std::optional<Reply> ReplyReader::finish() {
  if (unusable_ || !parser_) return std::nullopt;
  error_code error;
  parser_->put_eof(error);
  return error ? std::nullopt : conclude(Progress::kDone);
}

// Beast is given whole headers only: it would judge a broken one differently when it comes in
// pieces. So the lines are looked at here, and the size of all of them together is limited.
ReplyReader::Progress ReplyReader::read_header() {
  if (!may_become_http(bytes_)) return Progress::kUnusable;
  for (;;) {
    const std::size_t end = bytes_.find('\n', scanned_);
    const std::size_t known = end == std::string::npos ? bytes_.size() : end + 1;
    if (header_size_ + known > kMaxHeader) return Progress::kUnusable;
    if (end == std::string::npos) return Progress::kMoreNeeded;
    if (end == scanned_ || bytes_[end - 1] != '\r') return Progress::kUnusable;
    const bool empty_line = end == scanned_ + 1;
    scanned_ = end + 1;
    if (empty_line) return parse_header(scanned_);
  }
}

ReplyReader::Progress ReplyReader::parse_header(std::size_t size) {
  const std::size_t status_line = bytes_.find('\r');
  if (status_line == kReasonPlace - 1) {  // the blank behind the code is often forgotten
    bytes_.insert(status_line, 1, ' ');
    ++size;
  }
  parser_ = std::make_unique<Parser>();
  parser_->eager(true);
  parser_->header_limit(kMaxHeader + 1);
  parser_->body_limit(kMaxBody);
  error_code error;
  const std::size_t used = parser_->put(boost::asio::buffer(bytes_.data(), size), error);
  if (error || used != size || parser_->get().result_int() < 100) return Progress::kUnusable;
  reason_ = bytes_.substr(kReasonPlace, bytes_.find('\r') - kReasonPlace);
  bytes_.erase(0, size);
  scanned_ = 0;
  header_size_ += size;
  if (parser_->get().result_int() < 200) {
    parser_.reset();
    skip_empty_lines();
  }
  return Progress::kDone;
}

// Of a chunked body Beast is shown one byte more at a time, however many have come: what it makes
// of a chunk's head with an open quote depends on how much stands behind it.
ReplyReader::Progress ReplyReader::read_body() {
  error_code error;
  std::size_t used = 0;
  while (!parser_->is_done() && scanned_ < bytes_.size()) {
    scanned_ = parser_->chunked() ? scanned_ + 1 : bytes_.size();
    error = {};
    used += parser_->put(boost::asio::buffer(bytes_.data() + used, scanned_ - used), error);
    if (error && error != http::error::need_more) break;
  }
  bytes_.erase(0, used);
  scanned_ -= used;
  body_size_on_wire_ += used;
  if (error && error != http::error::need_more) return Progress::kUnusable;
  if (parser_->is_done()) {
    return body_size_on_wire_ > kMaxBodyOnWire ? Progress::kUnusable : Progress::kDone;
  }
  return body_size_on_wire_ + bytes_.size() > kMaxBodyOnWire ? Progress::kUnusable
                                                             : Progress::kMoreNeeded;
}

std::optional<Reply> ReplyReader::conclude(Progress progress) {
  if (progress == Progress::kMoreNeeded) return std::nullopt;
  Reply reply;
  if (progress == Progress::kUnusable) {
    unusable_ = true;
    header_size_ = 0;
    bytes_.clear();
    parser_.reset();
    return reply;
  }
  auto message = parser_->release();
  reply.usable = true;
  reply.status = static_cast<int>(message.result_int());
  reply.status_text = std::to_string(reply.status);
  reply.reason = std::move(reason_);
  for (const auto& field : message) {
    reply.headers.emplace_back(to_text(field.name_string()), to_text(field.value()));
  }
  reply.body = std::move(message.body());
  parser_.reset();
  header_size_ = 0;
  body_size_on_wire_ = 0;
  scanned_ = 0;
  skip_empty_lines();
  return reply;
}

}  // namespace mg_facade
