#include "log_consumer/qv_log_consumer_upload.h"

#include <syslog.h>

#include <cstddef>
#include <ctime>
#include <filesystem>
#include <ios>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <system_error>

#include "log_consumer/qv_log_consumer_mg.h"
#include "log_consumer/qv_log_consumer_socket_thread.h"

namespace {

constexpr char kDelimiter[] = "\r\n--acebdf13572468\r\n";
constexpr std::size_t kClosingDelimiterSize = sizeof kClosingDelimiter - 1;
constexpr std::int64_t kMaxInt = std::numeric_limits<int>::max();

std::string textPart(const std::string& name, const std::string& value) {
  return std::string(kDelimiter) + "Content-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" +
         value;
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

// False after a read error. A file that ends early was cut since its size was taken.
bool readContents(std::ifstream& file, std::vector<char>& contents) {
  file.read(contents.data(), static_cast<std::streamsize>(contents.size()));
  contents.resize(static_cast<std::size_t>(file.gcount()));
  return !file.bad() && (!file.fail() || file.eof());
}

void closeQuietly(std::ifstream& file) {
  try {
    file.close();
  } catch (const std::ios_base::failure&) {
    syslog(LOG_INFO, "File close exception");
  }
}

RequestHead frameForServer(servers logSrv, const std::string& filetype,
                           const std::string& shortFilename, std::uint32_t fileSize) {
  const std::string createTime = std::to_string(time(nullptr));
  if (logSrv != kDataUploadSrv) return {};
  std::string sysId;
  std::string host;
  {
    const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
    sysId = logConsumerShared.sysId;
    host = logConsumerShared.dataUploadServerAddr;
  }
  return frameUpload({sysId, filetype, createTime, shortFilename}, host, fileSize);
}

// The bytes of one request, and how many of them the server gets.
struct Request {
  std::vector<char> bytes;
  int length = 0;
};

// The file's own copy of the bytes is gone when this returns. False: nothing to send.
bool prepareRequest(LogConsumerLogger& logger, const std::string& filename,
                    const std::string& filetype, servers logSrv, const std::string& shortFilename,
                    Request& request) {
  std::ifstream file;
  std::vector<char> buffer;
  if (!readLogFile(file, filename, buffer)) return false;
  const RequestHead head =
      frameForServer(logSrv, filetype, shortFilename, static_cast<std::uint32_t>(buffer.size()));
  if (requestSize(head, static_cast<std::int64_t>(buffer.size())) > kMaxInt) return false;
  logger.logHeader(head.header);
  logger.logFilesize(static_cast<long>(buffer.size()));
  request.bytes = assembleRequest(head, buffer);
  request.length = static_cast<int>(logSrv == kDataUploadSrv ? request.bytes.size()
                                                             : head.header.size() + buffer.size());
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

// The same bytes go out in each attempt. A reconnect may follow the last failure too: it serves
// the next file.
int sendWithRetry(LogConsumer& engine, servers logSrv, const Request& request) {
  LogConsumerMongooseClass* const connection = connectionTo(engine, logSrv);
  for (int attempt = 0; attempt < kSendAttempts; ++attempt) {
    if (connection != nullptr && connection->send_file(request.bytes, request.length)) {
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

std::string uploadBody(const UploadForm& form) {
  return textPart("SenderId", form.sysId) + textPart("LogType", form.filetype) +
         textPart("CreateTime", form.createTime) + textPart("FileType", ".gz") + kDelimiter +
         "Content-Disposition: form-data; name=\"Data\"; filename=\"" + form.shortFilename +
         "\"\r\nContent-Type: application/octet-stream\r\n\r\n";
}

std::string uploadHeader(const std::string& host, std::uint32_t contentLength) {
  return "POST /v1/Upload HTTP/1.1\r\nHost: " + host +
         "\r\nContent-Length: " + std::to_string(contentLength) +
         "\r\nAccept: */*\r\n"
         "Content-Type: multipart/form-data;boundary=acebdf13572468\r\n\r\n";
}

RequestHead frameUpload(const UploadForm& form, const std::string& host, std::uint32_t fileSize) {
  std::string body = uploadBody(form);
  const auto contentLength =
      static_cast<std::uint32_t>(body.size() + kClosingDelimiterSize + fileSize);
  return {uploadHeader(host, contentLength), std::move(body)};
}

std::int64_t requestSize(const RequestHead& head, std::int64_t fileSize) {
  return static_cast<std::int64_t>(head.header.size() + head.body.size() + kClosingDelimiterSize) +
         fileSize;
}

std::vector<char> assembleRequest(const RequestHead& head, const std::vector<char>& file) {
  std::vector<char> request;
  request.reserve(head.header.size() + head.body.size() + file.size() + kClosingDelimiterSize);
  request.insert(request.end(), head.header.begin(), head.header.end());
  request.insert(request.end(), head.body.begin(), head.body.end());
  request.insert(request.end(), file.begin(), file.end());
  request.insert(request.end(), kClosingDelimiter, kClosingDelimiter + kClosingDelimiterSize);
  return request;
}

// The system opens a directory for reading like a file, and some file systems give it a size.
bool readLogFile(std::ifstream& file, const std::string& filename, std::vector<char>& contents) {
  std::error_code none;
  if (std::filesystem::is_directory(filename, none)) return false;
  if (!openAtEnd(file, filename)) return false;
  std::int64_t fileSize = positionAtEnd(file);
  if (!seekToStart(file)) fileSize = 0;
  if (fileSize < 0 || fileSize > kMaxInt) return false;
  contents.resize(static_cast<std::size_t>(fileSize));
  const bool complete = fileSize == 0 || readContents(file, contents);
  closeQuietly(file);
  return complete;
}

int LogConsumer::sendFile(const std::string& filename, const std::string& filetype, servers logSrv,
                          const std::string& shortFilename) {
  try {
    Request request;
    if (!prepareRequest(logger, filename, filetype, logSrv, shortFilename, request)) return 1;
    return sendWithRetry(*this, logSrv, request);
  } catch (const std::bad_alloc&) {
    syslog(LOG_INFO, "Not enough memory to send %s", filename.c_str());
    return 1;
  }
}
