// How one log file becomes the bytes of one request. LogConsumer::sendFile puts these steps
// together.
//
// The data upload server gets an HTTP/1.1 POST with a multipart/form-data body of five parts:
//
//     header    POST /v1/Upload HTTP/1.1, Host, Content-Length, Accept, Content-Type, blank line
//     body      SenderId, LogType, CreateTime and FileType with their values, then the headers of
//               Data; begins with the line end that belongs to its first delimiter
//     file      the bytes of the gzip file
//     end       the closing delimiter
//
// Content-Length counts from the body's leading line end to the end of the closing delimiter. The
// relay server gets the file's bytes alone.
//
// What is read is what is sent: a file that grows while it is read is sent up to the size that it
// had when it was opened, one that shrinks is sent as far as it still went, and one that is
// replaced is sent in the version that was opened. Nothing is locked against its producer; the
// check that no process holds the file open is the caller's, before the send.
#ifndef LOG_CONSUMER_QV_LOG_CONSUMER_UPLOAD_H
#define LOG_CONSUMER_QV_LOG_CONSUMER_UPLOAD_H

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

/// How often one call of LogConsumer::sendFile tries: the second time after any failure.
inline constexpr int kSendAttempts = 2;

/// Ends the multipart body; 22 bytes without the terminating NUL.
inline constexpr char kClosingDelimiter[] = "\r\n--acebdf13572468--\r\n";

/// Values of the form's text parts, put into the body as they are. The only texts that come from
/// outside are the system id and the file's name; neither is escaped.
struct UploadForm {
  std::string sysId;          ///< SenderId: the device's system id
  std::string filetype;       ///< LogType: upload name of the kind
  std::string createTime;     ///< CreateTime: seconds since the epoch, decimal
  std::string shortFilename;  ///< file name of the Data part, without directory
};

/// What stands in front of the file's bytes; both empty for the relay server.
struct RequestHead {
  std::string header;  ///< request line and headers, with the blank line that ends them
  std::string body;    ///< the body up to the first byte of the file

  std::size_t size() const;  ///< of both: where the file begins
};

/// The body in front of the file's bytes.
std::string uploadBody(const UploadForm& form);

/// Request line and headers. The host goes without its port, as it was configured.
/// @param contentLength  bytes that follow the header
std::string uploadHeader(const std::string& host, std::uint32_t contentLength);

/// Header and body for a file of `fileSize` bytes.
RequestHead frameUpload(const UploadForm& form, const std::string& host, std::uint32_t fileSize);

/// Bytes of a whole request: header and body (`headSize`), file and closing delimiter.
std::uint64_t requestSize(std::uint64_t headSize, std::uint64_t fileSize);

/// A request whose closing delimiter alone is written: room for `headSize` bytes of header and
/// body, then for `fileSize` bytes of the file. The delimiter is also put behind a file for the
/// relay server, which is then sent without it.
std::vector<char> layOutRequest(std::size_t headSize, std::size_t fileSize);

/// The same with the first `fileSize` bytes of the file that lies in another request.
/// @param fileAt  where it begins there
std::vector<char> refitRequest(const std::vector<char>& request, std::size_t fileAt,
                               std::size_t headSize, std::size_t fileSize);

/// Writes header and body into a request that has room for them.
void putHead(const RequestHead& head, std::vector<char>& request);

/// Opens a file for readLogFile() and takes its size.
///
/// Failures that the stream only notes in its state, as it does by itself, make the result false:
/// a path that cannot be opened, a directory, 2 GiB or more. Failures that the stream throws are
/// logged (LOG_INFO) and passed over; where the size is then not known, the file counts as empty.
///
/// @param file  a closed stream
/// @param size  receives the bytes that are to be read
/// @return whether the file may be sent.
bool openLogFile(std::ifstream& file, const std::string& filename, std::size_t& size);

/// Reads an open file from its start and closes it. A close that the stream throws at is logged
/// (LOG_INFO) and passed over.
/// @param to  `size` bytes
/// @return the bytes read, fewer than `size` for a file that was cut since; nothing after a read
/// error.
std::optional<std::size_t> readLogFile(std::ifstream& file, char* to, std::size_t size);

#endif
