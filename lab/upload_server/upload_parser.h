// Takes uploads apart, as the two servers of a device would.
//
// A multipart upload is an HTTP/1.1 POST with Content-Length and a multipart/form-data body whose
// part "Data" is the file. A raw upload is nothing but a gzip file: it has no length in front and
// ends where its gzip stream ends. The first bytes tell them apart.
#ifndef LAB_UPLOAD_SERVER_UPLOAD_PARSER_H
#define LAB_UPLOAD_SERVER_UPLOAD_PARSER_H

#include <zlib.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace lab {

enum class UploadKind {
  kUnknown,    ///< neither: nobody can say where it ends
  kMultipart,  ///< begins with "POST "
  kRaw,        ///< begins with the gzip magic
};

/// "unknown", "multipart" or "raw".
const char* name_of(UploadKind kind);

using NamedTexts = std::vector<std::pair<std::string, std::string>>;

/// One upload, complete or cut off.
struct Upload {
  UploadKind kind = UploadKind::kUnknown;
  bool complete = false;  ///< its end was seen
  std::string problem;    ///< why a server cannot use it; empty when it is sound
  std::string request;    ///< every byte as it came
  std::string target;     ///< of the request line, e.g. "/v1/Upload"; multipart only, as all below
  NamedTexts headers;
  NamedTexts fields;  ///< form fields other than the file, in order
  std::string file_name;
  std::string file;  ///< the file's bytes, for a raw upload too
};

/// @return the value of the first entry of that name (compared without case), or "".
std::string value_of(const NamedTexts& texts, const std::string& name);

/// Collects one upload from the pieces in which it arrives.
class UploadParser {
 public:
  UploadParser();
  ~UploadParser();
  UploadParser(const UploadParser&) = delete;
  UploadParser& operator=(const UploadParser&) = delete;

  /// Takes the next bytes. @return how many belong to this upload; fewer than `size` only when it
  /// is finished, the others belong to the next one.
  std::size_t feed(const char* data, std::size_t size);

  bool started() const { return !upload_.request.empty(); }
  /// Its end was seen, or it is beyond use (then `problem` says why).
  bool finished() const { return finished_; }
  UploadKind kind() const { return upload_.kind; }
  /// The upload as far as it came; the parser is used up.
  Upload take();

  static constexpr std::size_t kMaxHeader = 64UL * 1024;
  static constexpr long kMaxBody = 256L * 1024 * 1024;  ///< of a raw upload as a whole

 private:
  void detect_kind();
  void read_http();
  void read_http_header(std::size_t header_size);
  void read_gzip();
  void finish(std::string problem);

  Upload upload_;
  bool finished_ = false;
  std::size_t end_ = 0;          // where the upload ends in the bytes so far, once finished
  std::size_t header_size_ = 0;  // 0 until the header is whole
  std::size_t body_size_ = 0;
  std::size_t inflated_ = 0;  // bytes that the gzip stream has taken
  std::string boundary_;
  z_stream gzip_ = {};
};

/// Takes a multipart/form-data body apart into `fields`, `file_name` and `file`.
/// @return why it cannot be used, or "".
std::string parse_multipart(const std::string& body, const std::string& boundary, Upload& upload);

}  // namespace lab

#endif
