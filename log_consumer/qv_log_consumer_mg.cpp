#include "log_consumer/qv_log_consumer_mg.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <cstring>
#include <thread>
#include <utility>

#include "log_consumer/qv_immortal.h"

const char dataUploadConn[] = "DataServer";
const char relaySrvConn[] = "RelayServer";

using RegisteredObject = Immortal<std::shared_ptr<LogConsumerMongooseClass>>;
extern "C" {
RegisteredObject dataUploadServerStorage;
RegisteredObject relayServerStorage;
}
extern std::shared_ptr<LogConsumerMongooseClass> dataUploadServer
    [[gnu::alias("dataUploadServerStorage")]];
extern std::shared_ptr<LogConsumerMongooseClass> relayServer [[gnu::alias("relayServerStorage")]];

namespace {

using Connection = LogConsumerMongooseClass;
using Shared = logConsumerSharedStruct;

// Their serving threads may still be in their last poll.
Immortal<std::vector<std::shared_ptr<Connection>>> replacedObjects;

constexpr int kTlsPort = 443;
constexpr auto kClaimPause = std::chrono::milliseconds(100);
constexpr int kClaimTries = 600;  // a minute: the time of thirty polls

// What differs between the two servers.
struct ServerTraits {
  servers type;
  const char* tag;
  std::shared_ptr<Connection>& object;
  bool Shared::*connectDone;
  const char* registered;
  const char* terminating;
  const char* connectFailed;
  const char* connectSent;
  const char* connected;
  const char* closed;
};

const std::array<ServerTraits, 2> kServers = {{
    {kDataUploadSrv, dataUploadConn, dataUploadServer, &Shared::dataUploadConnectDone,
     "LogConsumer client - DataUpLoad", "Terminating LogConsumer client - DataUpLoad",
     "Data upload client connection failed", "Data upload client connection sent",
     "Connect event from data upload srv", "Data upload connection closed"},
    {kRelaySrv, relaySrvConn, relayServer, &Shared::relayServerConnectDone,
     "LogConsumer client - RelayServer", "Terminating LogConsumer client - RelayServer",
     "Relay server client connection failed", "Relay server client connection sent",
     "Connect event from relay srv", "Relay server connection closed"},
}};

// Both return null for what is neither server.
const ServerTraits* traitsOf(servers type) {
  for (const ServerTraits& server : kServers) {
    if (server.type == type) return &server;
  }
  return nullptr;
}

const ServerTraits* traitsOf(const void* tag) {
  for (const ServerTraits& server : kServers) {
    if (server.tag == tag) return &server;
  }
  return nullptr;
}

// The exclusive use of a proxy's Mongoose server.
class Claim {
 public:
  explicit Claim(logConsumerProxy& proxy) : proxy_(proxy) {}
  ~Claim() { release(); }
  Claim(const Claim&) = delete;
  Claim& operator=(const Claim&) = delete;

  bool take() { return held_ = held_ || !proxy_.served.exchange(true); }

  // Pauses with sleep_for() alone: it needs no clock that could be set.
  bool takeWithinAMinute() {
    for (int tries = 0; tries < kClaimTries && !take(); ++tries) {
      std::this_thread::sleep_for(kClaimPause);
    }
    return held_;
  }

  void release() {
    if (std::exchange(held_, false)) proxy_.served = false;
  }

 private:
  logConsumerProxy& proxy_;
  bool held_ = false;
};

bool createServer(logConsumerProxy& info) {
  info.mg_server_ptr = mg_create_server(&info, proxy_ev_handler);
  if (info.mg_server_ptr == nullptr) {
    syslog(LOG_ERR, "Failed to start proxy client.");
    return false;
  }
  syslog(LOG_INFO, "Mongoose server started.");
  return true;
}

// The new thread is started after the claim is let go, or it would find the server served.
bool restartServer(logConsumerProxy& info) {
  info.exit_flag = true;
  info.alive = false;
  sleep(kSecondsToStop);
  Claim claim(info);
  if (!claim.takeWithinAMinute()) {
    syslog(LOG_ERR, "Serving thread has not stopped, not connecting.");
    return false;
  }
  if (!createServer(info)) return false;
  info.alive = true;
  info.exit_flag = false;
  claim.release();
  mg_start_thread(serving_thread_func, &info);
  return true;
}

mongooseFileSendState readState(Connection& connection) {
  const std::lock_guard<std::mutex> lock(connection.stateMutex);
  return connection.state;
}

void writeState(Connection& connection, mongooseFileSendState state) {
  const std::lock_guard<std::mutex> lock(connection.stateMutex);
  connection.state = state;
}

// One hold for looking and changing: a time-out on the other thread cannot come in between.
bool moveState(Connection& connection, mongooseFileSendState from, mongooseFileSendState to) {
  const std::lock_guard<std::mutex> lock(connection.stateMutex);
  if (connection.state != from) return false;
  connection.state = to;
  return true;
}

bool finishSend(Connection& connection, bool good) {
  if (good) {
    syslog(LOG_INFO, "Good response for send");
  } else {
    syslog(LOG_INFO, "Bad response for send");
  }
  writeState(connection, kNone);
  return good;
}

int handleConnect(const ServerTraits& server) {
  syslog(LOG_DEBUG, "%s", server.connected);
  shared_set(server.connectDone, true);
  return MG_TRUE;
}

int handleClose(const ServerTraits& server) {
  syslog(LOG_DEBUG, "%s", server.closed);
  server.object->connection_closed();
  shared_set(server.connectDone, false);
  return MG_FALSE;
}

}  // namespace

void LogConsumerMongooseClass::connect_proxy_client(std::string host, int portNumber) {
  syslog(LOG_INFO, "Connecting to %s:%d", host.c_str(), portNumber);
  if (client != nullptr && !restartServer(info)) return;
  client = mg_connect(info.mg_server_ptr, host.c_str(), portNumber, portNumber == kTlsPort);
  const ServerTraits* const server = traitsOf(info.serverType);
  if (server == nullptr) return;
  if (client == nullptr) {
    syslog(LOG_DEBUG, "%s", server->connectFailed);
    shared_set(server->connectDone, false);
    return;
  }
  client->connection_param = const_cast<char*>(server->tag);  // never written through
  syslog(LOG_DEBUG, "%s", server->connectSent);
}

bool LogConsumerMongooseClass::send_file(std::vector<char> data, int length) {
  while (!moveState(*this, kNone, kProcessing))
    sleep(1);
  {
    const std::lock_guard<std::mutex> lock(requestMutex);
    fileData = std::move(data);
    fileLength = length;
  }
  writeState(*this, kOutgoingPending);
  for (int check = 0; check < kReplyChecks; ++check) {
    const mongooseFileSendState now = readState(*this);
    if (now == kGoodResp || now == kBadResp) return finishSend(*this, now == kGoodResp);
    sleep(kSecondsBetweenChecks);
  }
  syslog(LOG_INFO, "Timeout for send. serverType = %d", info.serverType);
  return finishSend(*this, false);
}

// A time-out on the other thread may come between the look and the move: nothing is written then.
void LogConsumerMongooseClass::send_receive() {
  const std::lock_guard<std::mutex> lock(requestMutex);
  if (readState(*this) != kOutgoingPending) return;
  syslog(LOG_DEBUG, "Writing file to mg_write");
  if (!moveState(*this, kOutgoingPending, kWaitingResp)) return;
  const int held = static_cast<int>(std::min<std::size_t>(fileData.size(), INT_MAX));
  const int written = mg_write(client, fileData.data(), std::clamp(fileLength, 0, held));
  syslog(LOG_DEBUG, "mg_write returned %d, file length is %d", written, fileLength);
}

void LogConsumerMongooseClass::response_handler() {
  if (client == nullptr || client->uri == nullptr) {
    syslog(LOG_INFO, "Invalid URI in server response");
    writeState(*this, kBadResp);
  } else if (std::strcmp(client->uri, "200") != 0) {
    syslog(LOG_INFO, "Got bad code from server: %s %s", client->uri, client->http_version);
    writeState(*this, kBadResp);
  } else {
    syslog(LOG_INFO, "Got 200 good resp from server");
    writeState(*this, kGoodResp);
  }
}

void LogConsumerMongooseClass::connection_closed() {
  const std::lock_guard<std::mutex> lock(stateMutex);
  if (state != kNone) state = kBadResp;
}

void init_lc_mg_client(std::shared_ptr<LogConsumerMongooseClass>& server) {
  logConsumerProxy& info = server->info;
  createServer(info);
  info.alive = true;
  info.exit_flag = false;
  writeState(*server, kNone);
  const ServerTraits* const traits = traitsOf(info.serverType);
  if (traits == nullptr) return;
  if (traits->object != nullptr && traits->object != server) {
    replacedObjects.object.push_back(traits->object);
  }
  traits->object = server;
  syslog(LOG_DEBUG, "%s", traits->registered);
}

void exec_lc_mg_client(std::shared_ptr<LogConsumerMongooseClass>& server) {
  mg_start_thread(serving_thread_func, &server->info);
}

void terminate_lc_mg_client(std::shared_ptr<LogConsumerMongooseClass>& server) {
  const ServerTraits* const traits = traitsOf(server->info.serverType);
  if (traits != nullptr) syslog(LOG_DEBUG, "%s", traits->terminating);
  server->info.exit_flag = true;
  server->info.alive = false;
  sleep(kSecondsToTerminate);
}

void* serving_thread_func(void* info) {
  auto* const proxy = static_cast<logConsumerProxy*>(info);
  if (proxy == nullptr) return nullptr;
  Claim claim(*proxy);
  if (!claim.take() || proxy->mg_server_ptr == nullptr) return nullptr;
  while (!proxy->exit_flag) {
    if (mg_poll_server(proxy->mg_server_ptr, kPollMilliseconds) == 0)
      sleep(kSecondsBetweenIdlePolls);
  }
  mg_destroy_server(&proxy->mg_server_ptr);
  proxy->exit_flag = false;
  return nullptr;
}

int proxy_ev_handler(struct mg_connection* connection, enum mg_event event) {
  if (connection == nullptr) {
    syslog(LOG_WARNING, "Bad Param - conn");
    return MG_FALSE;
  }
  const void* const tag = connection->connection_param;
  if (tag == nullptr) {
    syslog(LOG_WARNING, "Bad Param - connection_param");
    return MG_FALSE;
  }
  const ServerTraits* const server = traitsOf(tag);
  if (server == nullptr || server->object == nullptr) {
    syslog(LOG_DEBUG, "Event from unknown connection");
    return MG_FALSE;
  }
  switch (event) {
    case MG_POLL:
      server->object->send_receive();
      return MG_FALSE;
    case MG_CONNECT:
      return handleConnect(*server);
    case MG_REQUEST:
      return MG_TRUE;
    case MG_REPLY:
      syslog(LOG_DEBUG, "Response event");
      server->object->response_handler();
      return MG_TRUE;
    case MG_CLOSE:
      return handleClose(*server);
    default:
      return MG_FALSE;
  }
}
