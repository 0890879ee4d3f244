#include "log_consumer/qv_log_consumer_upload.h"

#include <syslog.h>

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <ios>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "log_consumer/qv_log_consumer_mg.h"
#include "log_consumer/qv_log_consumer_socket_thread.h"

namespace {

// A text part of the form: kPart, its name, kValue, its value.
constexpr char kPart[] = "\r\n--acebdf13572468\r\nContent-Disposition: form-data; name=\"";
constexpr char kValue[] = "\"\r\n\r\n";
constexpr std::size_t kClosingDelimiterSize = sizeof kClosingDelimiter - 1;
constexpr std::uint64_t kMaxInt = std::numeric_limits<int>::max();

template <typename... Texts>
std::string joined(const Texts&... texts) {
  std::string all;
  all.reserve((std::string_view(texts).size() + ...));
  (all.append(texts), ...);
  return all;
}

bool openAtEnd(std::ifstream& file, const std::string& filename) {
  try {
    file.open(filename, std::ios::in | std::ios::binary | std::ios::ate);
    return !file.fail();
  } catch (const std::ios_base::failure&) {
    syslog(LOG_INFO, "Could not open file");
  } catch (const std::runtime_error&) {
    syslog(LOG_INFO, "Open file runtime error");
  }
  return false;
}

std::int64_t positionAtEnd(std::ifstream& file) {
  try {
    return file.tellg();
  } catch (const std::ios_base::failure&) {
    syslog(LOG_INFO, "Could not read filesize");
    return 0;
  }
}

bool seekToStart(std::ifstream& file) {
  try {
    file.seekg(0, std::ios::beg);
    return true;
  } catch (const std::ios_base::failure&) {
    syslog(LOG_INFO, "Seekg exception");
    return false;
  }
}

void closeQuietly(std::ifstream& file) {
  try {
    file.close();
  } catch (const std::ios_base::failure&) {
    syslog(LOG_INFO, "File close exception");
  }
}

// What the caller says about the file.
struct LogFile {
  const std::string& path;
  const std::string& filetype;
  servers logSrv;
  const std::string& shortFilename;
};

// How long the head would be now, with a time of ten digits, as it is from 2001 to 2286.
std::size_t headSize(const LogFile& log, std::size_t fileSize) {
  if (log.logSrv != kDataUploadSrv) return 0;
  static const std::size_t headerTexts = uploadHeader("", 0).size() - 1;
  static const std::size_t bodyTexts = uploadBody({}).size();
  constexpr std::size_t kTimeDigits = 10;
  const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
  const std::size_t body = bodyTexts + logConsumerShared.sysId.size() + log.filetype.size() +
                           kTimeDigits + log.shortFilename.size();
  const std::size_t contentLength = body + kClosingDelimiterSize + fileSize;
  return headerTexts + logConsumerShared.dataUploadServerAddr.size() +
         std::to_string(contentLength).size() + body;
}

RequestHead headFor(const LogFile& log, const std::string& createTime, std::size_t fileSize) {
  if (log.logSrv != kDataUploadSrv) return {};
  std::unique_lock<std::mutex> lock(logConsumerShared.logsMutex);
  const UploadForm form = {logConsumerShared.sysId, log.filetype, createTime, log.shortFilename};
  const std::string host = logConsumerShared.dataUploadServerAddr;
  lock.unlock();
  return frameUpload(form, host, static_cast<std::uint32_t>(fileSize));
}

// The bytes of one request, and how many of them the server gets.
struct Request {
  std::vector<char> bytes;
  int length = 0;
};

// The file is read to its place in the request, behind room for a head that is written then. The
// room is too small or too large if the file is cut or the system id changes meanwhile. False:
// nothing to send.
bool prepareRequest(LogConsumerLogger& logger, const LogFile& log, Request& request) {
  std::ifstream file;
  std::size_t fileSize = 0;
  if (!openLogFile(file, log.path, fileSize)) return false;
  const std::size_t room = headSize(log, fileSize);
  if (requestSize(room, fileSize) > kMaxInt) return false;
  request.bytes = layOutRequest(room, fileSize);
  const auto got = readLogFile(file, request.bytes.data() + room, fileSize);
  if (!got) return false;
  const RequestHead head = headFor(log, std::to_string(time(nullptr)), *got);
  if (requestSize(head.size(), *got) > kMaxInt) return false;
  if (head.size() != room || *got != fileSize) {
    request.bytes = refitRequest(request.bytes, room, head.size(), *got);
  }
  putHead(head, request.bytes);
  logger.logHeader(head.header);
  logger.logFilesize(static_cast<long>(*got));
  request.length = static_cast<int>(log.logSrv == kDataUploadSrv ? request.bytes.size() : *got);
  return true;
}

// Null for a value outside the enumeration, and before the engine made its connections.
LogConsumerMongooseClass* connectionTo(const LogConsumer& engine, servers logSrv) {
  switch (logSrv) {
    case kDataUploadSrv:
      return engine.dataUploadProxy.get();
    case kRelaySrv:
      return engine.relayServerProxy.get();
  }
  return nullptr;
}

void reconnectIfDown(LogConsumerMongooseClass* connection, servers logSrv) {
  std::string address;
  int port = 0;
  bool connectDone = false;
  {
    const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
    const logConsumerSharedStruct& shared = logConsumerShared;
    const bool relay = logSrv == kRelaySrv;
    address = relay ? shared.relayServerAddr : shared.dataUploadServerAddr;
    port = relay ? shared.relayServerPort : shared.dataUploadServerPort;
    connectDone = relay ? shared.relayServerConnectDone : shared.dataUploadConnectDone;
  }
  if (connection != nullptr && !connectDone) connection->connect_proxy_client(address, port);
}

// The same bytes go out in each attempt: the connection gets a copy, but for the last attempt. A
// reconnect may follow the last failure too: it serves the next file.
int sendWithRetry(LogConsumer& engine, servers logSrv, LogConsumerMongooseClass* connection,
                  Request request) {
  for (int attempt = 1; attempt <= kSendAttempts; ++attempt) {
    const bool last = attempt == kSendAttempts;
    if (connection != nullptr &&
        connection->send_file(last ? std::exchange(request.bytes, {}) : request.bytes,
                              request.length)) {
      engine.logger.logResponse("Send passed");
      return 0;
    }
    syslog(LOG_INFO, "Send error");
    engine.logger.logResponse("Send error");
    reconnectIfDown(connection, logSrv);
  }
  return 1;
}

}  // namespace

std::size_t RequestHead::size() const {
  return header.size() + body.size();
}

std::string uploadBody(const UploadForm& form) {
  return joined(kPart, "SenderId", kValue, form.sysId,         //
                kPart, "LogType", kValue, form.filetype,       //
                kPart, "CreateTime", kValue, form.createTime,  //
                kPart, "FileType", kValue, ".gz",              //
                kPart, "Data\"; filename=\"", form.shortFilename,
                "\"\r\nContent-Type: application/octet-stream\r\n\r\n");
}

std::string uploadHeader(const std::string& host, std::uint32_t contentLength) {
  return joined("POST /v1/Upload HTTP/1.1\r\nHost: ", host,
                "\r\nContent-Length: ", std::to_string(contentLength),
                "\r\nAccept: */*\r\n"
                "Content-Type: multipart/form-data;boundary=acebdf13572468\r\n\r\n");
}

RequestHead frameUpload(const UploadForm& form, const std::string& host, std::uint32_t fileSize) {
  std::string body = uploadBody(form);
  const auto contentLength =
      static_cast<std::uint32_t>(body.size() + kClosingDelimiterSize + fileSize);
  return {uploadHeader(host, contentLength), std::move(body)};
}

std::uint64_t requestSize(std::uint64_t headSize, std::uint64_t fileSize) {
  return headSize + fileSize + kClosingDelimiterSize;
}

void putHead(const RequestHead& head, std::vector<char>& request) {
  const auto place = std::copy(head.header.begin(), head.header.end(), request.begin());
  std::copy(head.body.begin(), head.body.end(), place);
}

std::vector<char> layOutRequest(std::size_t headSize, std::size_t fileSize) {
  std::vector<char> request(headSize + fileSize + kClosingDelimiterSize);
  std::copy_n(kClosingDelimiter, kClosingDelimiterSize, request.end() - kClosingDelimiterSize);
  return request;
}

std::vector<char> refitRequest(const std::vector<char>& request, std::size_t fileAt,
                               std::size_t headSize, std::size_t fileSize) {
  std::vector<char> refitted = layOutRequest(headSize, fileSize);
  std::copy_n(request.data() + fileAt, fileSize, refitted.data() + headSize);
  return refitted;
}

// The system opens a directory for reading like a file, and only refuses to read it; on some file
// systems its size is 0.
bool openLogFile(std::ifstream& file, const std::string& filename, std::size_t& size) {
  if (!openAtEnd(file, filename)) return false;
  std::int64_t position = positionAtEnd(file);
  if (!seekToStart(file)) position = 0;
  if (position < 0 || static_cast<std::uint64_t>(position) > kMaxInt) return false;
  size = static_cast<std::size_t>(position);
  if (size > 0 || !file.good()) return true;
  file.peek();
  return !file.bad();
}

// Nothing is read of a file that counts as empty, whatever state its stream is in.
std::optional<std::size_t> readLogFile(std::ifstream& file, char* to, std::size_t size) {
  std::size_t got = 0;
  bool complete = true;
  if (size > 0) {
    file.read(to, static_cast<std::streamsize>(size));
    got = static_cast<std::size_t>(file.gcount());
    complete = !file.bad() && (!file.fail() || file.eof());
  }
  closeQuietly(file);
  return complete ? std::make_optional(got) : std::nullopt;
}

int LogConsumer::sendFile(const std::string& filename, const std::string& filetype, servers logSrv,
                          const std::string& shortFilename) {
  try {
    Request request;
    if (!prepareRequest(logger, {filename, filetype, logSrv, shortFilename}, request)) return 1;
    LogConsumerMongooseClass* const connection = connectionTo(*this, logSrv);
    const int result = sendWithRetry(*this, logSrv, connection, std::move(request));
    if (connection != nullptr) connection->free_large_request();
    return result;
  } catch (const std::bad_alloc&) {
    syslog(LOG_INFO, "Not enough memory to send %s", filename.c_str());
    return 1;
  }
}
