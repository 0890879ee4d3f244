// Uploads as a device sends them, written out by hand.
#ifndef TESTS_LAB_REQUESTS_H
#define TESTS_LAB_REQUESTS_H

#include <zlib.h>

#include <stdexcept>
#include <string>

namespace test_support {

inline std::string gzip(const std::string& text) {
  z_stream stream = {};
  if (deflateInit2(&stream, 6, Z_DEFLATED, MAX_WBITS + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
    throw std::runtime_error("deflateInit2");
  }
  std::string input = text;
  std::string output(deflateBound(&stream, text.size()) + 64, '\0');
  stream.next_in = reinterpret_cast<unsigned char*>(input.data());
  stream.avail_in = static_cast<unsigned>(input.size());
  stream.next_out = reinterpret_cast<unsigned char*>(output.data());
  stream.avail_out = static_cast<unsigned>(output.size());
  const int result = deflate(&stream, Z_FINISH);
  output.resize(stream.total_out);
  deflateEnd(&stream);
  if (result != Z_STREAM_END) throw std::runtime_error("deflate");
  return output;
}

inline std::string multipart_body(const std::string& file, const std::string& file_name = "a.gz") {
  return "\r\n--bnd\r\nContent-Disposition: form-data; name=\"SenderId\"\r\n\r\nAB12345678"
         "\r\n--bnd\r\nContent-Disposition: form-data; name=\"LogType\"\r\n\r\nTLink"
         "\r\n--bnd\r\nContent-Disposition: form-data; name=\"Data\"; filename=\"" +
         file_name + "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + file +
         "\r\n--bnd--\r\n";
}

inline std::string post(const std::string& body,
                        const std::string& content_type = "multipart/form-data;boundary=bnd") {
  return "POST /v1/Upload HTTP/1.1\r\nHost: h\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nAccept: */*\r\nContent-Type: " + content_type + "\r\n\r\n" + body;
}

inline std::string multipart_upload(const std::string& file,
                                    const std::string& file_name = "a.gz") {
  return post(multipart_body(file, file_name));
}

}  // namespace test_support

#endif
