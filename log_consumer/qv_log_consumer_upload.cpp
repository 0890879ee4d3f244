#include "log_consumer/qv_log_consumer_upload.h"

#include <syslog.h>

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <filesystem>
#include <ios>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "log_consumer/qv_log_consumer_mg.h"
#include "log_consumer/qv_log_consumer_socket_thread.h"

namespace {

// A text part of the form: kPart, its name, kValue, its value.
constexpr char kPart[] = "\r\n--acebdf13572468\r\nContent-Disposition: form-data; name=\"";
constexpr char kValue[] = "\"\r\n\r\n";
constexpr std::size_t kClosingDelimiterSize = sizeof kClosingDelimiter - 1;
constexpr std::int64_t kMaxInt = std::numeric_limits<int>::max();

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

// What a request says about its file, but for the size.
struct Envelope {
  servers logSrv;
  UploadForm form;
  std::string host;
};

Envelope envelopeFor(servers logSrv, const std::string& filetype,
                     const std::string& shortFilename) {
  const std::string createTime = std::to_string(time(nullptr));
  const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
  return {logSrv,
          {logConsumerShared.sysId, filetype, createTime, shortFilename},
          logConsumerShared.dataUploadServerAddr};
}

RequestHead headOf(const Envelope& envelope, std::size_t fileSize) {
  if (envelope.logSrv != kDataUploadSrv) return {};
  return frameUpload(envelope.form, envelope.host, static_cast<std::uint32_t>(fileSize));
}

// The bytes of one request, and how many of them the server gets.
struct Request {
  std::vector<char> bytes;
  int length = 0;
};

// The file is read to its place in the request. False: nothing to send.
bool prepareRequest(LogConsumerLogger& logger, const std::string& filename,
                    const std::string& filetype, servers logSrv, const std::string& shortFilename,
                    Request& request) {
  std::ifstream file;
  std::size_t fileSize = 0;
  if (!openLogFile(file, filename, fileSize)) return false;
  const Envelope envelope = envelopeFor(logSrv, filetype, shortFilename);
  RequestHead head = headOf(envelope, fileSize);
  if (requestSize(head, static_cast<std::int64_t>(fileSize)) > kMaxInt) return false;
  request.bytes = layOutRequest(head, fileSize);
  const auto got = readLogFile(file, request.bytes.data() + head.size(), fileSize);
  if (!got) return false;
  if (*got < fileSize) {  // cut since its size was taken
    const RequestHead shorter = headOf(envelope, *got);
    request.bytes = refitRequest(request.bytes, head.size(), shorter, *got);
    head = shorter;
  }
  logger.logHeader(head.header);
  logger.logFilesize(static_cast<long>(*got));
  request.length = static_cast<int>(logSrv == kDataUploadSrv ? request.bytes.size() : *got);
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

std::int64_t requestSize(const RequestHead& head, std::int64_t fileSize) {
  return static_cast<std::int64_t>(head.size() + kClosingDelimiterSize) + fileSize;
}

std::vector<char> layOutRequest(const RequestHead& head, std::size_t fileSize) {
  std::vector<char> request(head.size() + fileSize + kClosingDelimiterSize);
  auto place = std::copy(head.header.begin(), head.header.end(), request.begin());
  std::copy(head.body.begin(), head.body.end(), place);
  std::copy_n(kClosingDelimiter, kClosingDelimiterSize, request.end() - kClosingDelimiterSize);
  return request;
}

std::vector<char> refitRequest(const std::vector<char>& request, std::size_t fileAt,
                               const RequestHead& head, std::size_t fileSize) {
  std::vector<char> refitted = layOutRequest(head, fileSize);
  std::copy_n(request.data() + fileAt, fileSize, refitted.data() + head.size());
  return refitted;
}

// The system opens a directory for reading like a file, and some file systems give it a size.
bool openLogFile(std::ifstream& file, const std::string& filename, std::size_t& size) {
  std::error_code none;
  if (std::filesystem::is_directory(filename, none)) return false;
  if (!openAtEnd(file, filename)) return false;
  std::int64_t position = positionAtEnd(file);
  if (!seekToStart(file)) position = 0;
  if (position < 0 || position > kMaxInt) return false;
  size = static_cast<std::size_t>(position);
  return true;
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
    if (!prepareRequest(logger, filename, filetype, logSrv, shortFilename, request)) return 1;
    LogConsumerMongooseClass* const connection = connectionTo(*this, logSrv);
    const int result = sendWithRetry(*this, logSrv, connection, std::move(request));
    if (connection != nullptr) connection->freeLargeRequest();
    return result;
  } catch (const std::bad_alloc&) {
    syslog(LOG_INFO, "Not enough memory to send %s", filename.c_str());
    return 1;
  }
}
