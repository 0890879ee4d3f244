#include <netdb.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "log_consumer/qv_json_obj_factory.h"
#include "log_consumer/qv_log_consumer_socket_thread.h"

namespace {

using Shared = logConsumerSharedStruct;
using AddressList = std::unique_ptr<struct addrinfo, decltype(&freeaddrinfo)>;

// Where one server's settings and results are kept. The messages are the same for both.
struct ProbedServer {
  std::string Shared::*address;
  int Shared::*port;
  bool Shared::*connectDone;
  int LogConsumer::*sockfd;
};

constexpr ProbedServer kDataUpload = {&Shared::dataUploadServerAddr, &Shared::dataUploadServerPort,
                                      &Shared::dataUploadConnectDone,
                                      &LogConsumer::dataUploadSockfd};
constexpr ProbedServer kRelay = {&Shared::relayServerAddr, &Shared::relayServerPort,
                                 &Shared::relayServerConnectDone, &LogConsumer::relayServerSockfd};

AddressList resolve(const ProbedServer& server) {
  std::string address;
  int port = 0;
  {
    const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
    address = logConsumerShared.*server.address;
    port = logConsumerShared.*server.port;
  }
  struct addrinfo hints = {};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* found = nullptr;
  if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
    found = nullptr;
  }
  return {found, &freeaddrinfo};
}

void openAndConnect(int& sockfd, const struct addrinfo& address, bool Shared::*connectDone) {
  sockfd = socket(address.ai_family, address.ai_socktype, address.ai_protocol);
  if (sockfd <= 0) {
    syslog(LOG_DEBUG, "data upload socket func failed");
    shared_set(connectDone, false);
  } else if (connect(sockfd, address.ai_addr, address.ai_addrlen) < 0) {
    shared_set(connectDone, false);
    syslog(LOG_DEBUG, "data upload connect failed");
  } else {
    shared_set(connectDone, true);
    syslog(LOG_DEBUG, "data upload socket connected");
  }
}

void setUpSocket(LogConsumer& engine, const ProbedServer& server) {
  syslog(LOG_DEBUG, "Init data upload socket");
  const AddressList found = resolve(server);
  if (found == nullptr) {
    syslog(LOG_DEBUG, "getaddrinfo data upload failed");
    shared_set(server.connectDone, false);
    return;
  }
  if (found->ai_addrlen == sizeof engine.servAddr) {
    std::memcpy(&engine.servAddr, found->ai_addr, sizeof engine.servAddr);
  }
  int& sockfd = engine.*server.sockfd;
  openAndConnect(sockfd, *found, server.connectDone);
  if (!shared_get(server.connectDone)) {
    close(sockfd);
    syslog(LOG_DEBUG, "close the bad data upload socket %d", sockfd);
    sockfd = -1;
  }
}

void reportUnknownDevice(QvRgw::aapStateEnum aapState, const std::string& aapStateStr,
                         const std::string& sysId) {
  syslog(LOG_DEBUG, "Might be NUV not registered = %d or sysid with default = %s", aapState,
         sysId.c_str());
  syslog(LOG_DEBUG, "%s", aapStateStr.c_str());
  if (aapState == QvRgw::kAapStateBound && sysId == kDefaultSysId) {
    syslog(LOG_DEBUG, "Manually getting data from pushpull, bad state");
    shared_set(&Shared::manualUpdate, true);
  }
}

bool isRegistered(QvRgw::aapStateEnum aapState) {
  return aapState == QvRgw::kAapStateRegistered || aapState == QvRgw::kAapStateBinding ||
         aapState == QvRgw::kAapStateBound;
}

void probe(LogConsumer& engine, const ProbedServer& server) {
  const QvRgw rgw("rgw");
  std::string sysId;
  std::string aapStateStr;
  {
    const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
    sysId = logConsumerShared.sysId;
    aapStateStr = logConsumerShared.aapStateStr;
  }
  const QvRgw::aapStateEnum aapState = rgw.hashAapState(aapStateStr);
  if (isRegistered(aapState) && sysId != kDefaultSysId) {
    setUpSocket(engine, server);
  } else {
    reportUnknownDevice(aapState, aapStateStr, sysId);
  }
}

}  // namespace

void LogConsumer::initDataUploadSocket() {
  probe(*this, kDataUpload);
}

void LogConsumer::initRelayServerSocket() {
  probe(*this, kRelay);
}
