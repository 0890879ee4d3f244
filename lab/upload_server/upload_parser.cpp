#include "lab/upload_server/upload_parser.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "lab/support/options.h"

namespace lab {
namespace {

constexpr char kPost[] = "POST ";
constexpr char kGzipMagic[] = "\x1f\x8b";
constexpr char kHeaderEnd[] = "\r\n\r\n";
constexpr char kLineEnd[] = "\r\n";

bool equal_without_case(const std::string& a, const std::string& b) {
  return strcasecmp(a.c_str(), b.c_str()) == 0;
}

// How `text` stands to a beginning: it has it, may still get it, or neither.
enum class Match { kNo, kPartly, kYes };
Match match_beginning(const std::string& text, const std::string& beginning) {
  const std::size_t size = std::min(text.size(), beginning.size());
  if (text.compare(0, size, beginning, 0, size) != 0) return Match::kNo;
  return size == beginning.size() ? Match::kYes : Match::kPartly;
}

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// "Name: value" lines, each ended by CRLF.
NamedTexts parse_header_lines(const std::string& text) {
  NamedTexts lines;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find(kLineEnd, at), text.size());
    const std::string line = text.substr(at, end - at);
    const std::size_t colon = line.find(':');
    if (colon != std::string::npos) {
      lines.emplace_back(line.substr(0, colon), trimmed(line.substr(colon + 1)));
    }
    at = end + 2;
  }
  return lines;
}

// The value between NAME=" and the next quote; a file's name, the last parameter, may itself
// contain quotes and so ends at the line's last one.
std::string quoted_parameter(const std::string& header, const std::string& name, bool last) {
  const std::string key = name + "=\"";
  std::size_t at = header.find(key);
  while (at != std::string::npos && at != 0 && header[at - 1] != ' ' && header[at - 1] != ';') {
    at = header.find(key, at + 1);  // the end of a longer name, as in filename=
  }
  if (at == std::string::npos) return "";
  at += key.size();
  const std::size_t end = last ? header.rfind('"') : header.find('"', at);
  return end == std::string::npos || end < at ? "" : header.substr(at, end - at);
}

std::string boundary_of(const std::string& content_type) {
  constexpr char kName[] = "boundary=";
  const std::size_t at = content_type.find(kName);
  if (at == std::string::npos) return "";
  const std::size_t start = at + sizeof kName - 1;
  const std::size_t end = std::min(content_type.find(';', start), content_type.size());
  std::string value = content_type.substr(start, end - start);
  if (value.size() >= 2 && value.front() == '"') value = value.substr(1, value.size() - 2);
  return value;
}

void add_part(const std::string& part, bool& file_seen, Upload& upload) {
  const std::size_t header_end = part.find(kHeaderEnd);
  if (header_end == std::string::npos) throw std::invalid_argument("a part without an empty line");
  const NamedTexts headers = parse_header_lines(part.substr(0, header_end));
  const std::string disposition = value_of(headers, "Content-Disposition");
  const std::string name = quoted_parameter(disposition, "name", false);
  if (name.empty()) throw std::invalid_argument("a part without a name");
  std::string content = part.substr(header_end + 4);
  if (disposition.find("filename=") == std::string::npos) {
    upload.fields.emplace_back(name, std::move(content));
    return;
  }
  if (file_seen) throw std::invalid_argument("more than one file");
  file_seen = true;
  upload.file_name = quoted_parameter(disposition, "filename", true);
  upload.file = std::move(content);
}

}  // namespace

const char* name_of(UploadKind kind) {
  switch (kind) {
    case UploadKind::kMultipart:
      return "multipart";
    case UploadKind::kRaw:
      return "raw";
    case UploadKind::kUnknown:
      break;
  }
  return "unknown";
}

std::string value_of(const NamedTexts& texts, const std::string& name) {
  const auto found = std::find_if(texts.begin(), texts.end(), [&name](const auto& entry) {
    return equal_without_case(entry.first, name);
  });
  return found == texts.end() ? "" : found->second;
}

std::string parse_multipart(const std::string& body, const std::string& boundary, Upload& upload) {
  // The line end before a delimiter belongs to it; the first delimiter may stand without one.
  const std::string delimiter = "\r\n--" + boundary;
  std::size_t at = 0;
  if (body.compare(0, delimiter.size() - 2, delimiter, 2) == 0) {
    at = delimiter.size() - 2;
  } else {
    at = body.find(delimiter);
    if (at == std::string::npos) return "no delimiter in the body";
    at += delimiter.size();
  }
  bool file_seen = false;
  while (body.compare(at, 2, "--") != 0) {
    if (body.compare(at, 2, kLineEnd) != 0) return "no line end after a delimiter";
    const std::size_t end = body.find(delimiter, at + 2);
    if (end == std::string::npos) return "no closing delimiter";
    try {
      add_part(body.substr(at + 2, end - at - 2), file_seen, upload);
    } catch (const std::invalid_argument& error) {
      return error.what();
    }
    at = end + delimiter.size();
  }
  if (body.compare(at + 2, std::string::npos, kLineEnd) != 0) {
    return "the closing delimiter does not end the body";
  }
  return file_seen ? "" : "no file";
}

UploadParser::UploadParser() {
  constexpr int kGzipOnly = 16;  // added to the window size, see zlib.h
  if (inflateInit2(&gzip_, MAX_WBITS + kGzipOnly) != Z_OK) throw std::bad_alloc();
}

UploadParser::~UploadParser() {
  inflateEnd(&gzip_);
}

std::size_t UploadParser::feed(const char* data, std::size_t size) {
  const std::size_t before = upload_.request.size();
  upload_.request.append(data, size);
  if (upload_.kind == UploadKind::kUnknown) detect_kind();
  if (upload_.kind == UploadKind::kMultipart) read_http();
  if (upload_.kind == UploadKind::kRaw) read_gzip();
  if (!finished_) return size;
  upload_.request.resize(end_);
  return end_ - before;
}

Upload UploadParser::take() {
  if (!finished_ && started()) upload_.problem = "cut off";
  return std::move(upload_);
}

void UploadParser::finish(std::string problem) {
  finished_ = true;
  upload_.complete = problem.empty();
  upload_.problem = std::move(problem);
}

void UploadParser::detect_kind() {
  const Match post = match_beginning(upload_.request, kPost);
  const Match gzip = match_beginning(upload_.request, kGzipMagic);
  if (post == Match::kYes) upload_.kind = UploadKind::kMultipart;
  if (gzip == Match::kYes) upload_.kind = UploadKind::kRaw;
  if (post == Match::kNo && gzip == Match::kNo) {
    end_ = upload_.request.size();
    finish("neither a POST request nor a gzip stream");
  }
}

void UploadParser::read_http() {
  if (header_size_ == 0) {
    const std::size_t header_end = upload_.request.find(kHeaderEnd);
    end_ = upload_.request.size();
    if (std::min(header_end, end_) > kMaxHeader) {
      finish("header too long");
    } else if (header_end != std::string::npos) {
      read_http_header(header_end + 4);
    }
  }
  if (finished_ || header_size_ == 0) return;
  if (upload_.request.size() < header_size_ + body_size_) return;
  end_ = header_size_ + body_size_;
  const std::string body = upload_.request.substr(header_size_, body_size_);
  finish(boundary_.empty() ? "no multipart boundary" : parse_multipart(body, boundary_, upload_));
}

void UploadParser::read_http_header(std::size_t header_size) {
  const std::string header = upload_.request.substr(0, header_size - 2);
  const std::size_t line_end = header.find(kLineEnd);
  const std::string line = header.substr(sizeof kPost - 1, line_end - (sizeof kPost - 1));
  const std::size_t target_end = std::min(line.rfind(' '), line.size());
  upload_.target = line.substr(0, target_end);
  upload_.headers = parse_header_lines(header.substr(line_end + 2));
  boundary_ = boundary_of(value_of(upload_.headers, "Content-Type"));
  if (line.compare(target_end, std::string::npos, " HTTP/1.1") != 0) {
    finish("no HTTP/1.1 request line");
    return;
  }
  try {
    const std::string length = value_of(upload_.headers, "Content-Length");
    body_size_ = static_cast<std::size_t>(parse_number(length, 0, kMaxBody));
    header_size_ = header_size;
  } catch (const BadValue& error) {
    finish(std::string("Content-Length ") + error.what());
  }
}

void UploadParser::read_gzip() {
  std::array<unsigned char, 16384> scratch = {};
  int result = Z_OK;
  // zlib reads through a pointer that is not const but never writes there.
  gzip_.next_in = reinterpret_cast<unsigned char*>(upload_.request.data() + inflated_);
  gzip_.avail_in = static_cast<unsigned>(upload_.request.size() - inflated_);
  do {
    gzip_.next_out = scratch.data();
    gzip_.avail_out = scratch.size();
    result = inflate(&gzip_, Z_NO_FLUSH);
  } while (result == Z_OK && (gzip_.avail_in > 0 || gzip_.avail_out == 0));
  inflated_ = upload_.request.size() - gzip_.avail_in;
  const bool too_long = upload_.request.size() > static_cast<std::size_t>(kMaxBody);
  if ((result == Z_OK || result == Z_BUF_ERROR) && !too_long) return;  // it goes on
  end_ = result == Z_STREAM_END ? inflated_ : upload_.request.size();
  upload_.file = upload_.request.substr(0, end_);
  finish(result == Z_STREAM_END ? "" : too_long ? "too long" : "damaged gzip stream");
}

}  // namespace lab
