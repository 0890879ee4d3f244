// The client connection to one server, on the Mongoose event loop.
//
// Each of the two servers has one LogConsumerMongooseClass with a Mongoose server (an event loop
// with its connections) of its own and a serving thread that polls it. The upload thread hands a
// finished request to send_file() and waits; the serving thread does everything else.
//
// The life of one request:
//  1. send_file() waits for kNone, loads the bytes (kProcessing) and offers them
//     (kOutgoingPending).
//  2. The next poll of the connection writes them (kWaitingResp). Polls come every two seconds
//     while nothing else happens.
//  3. The reply's status decides: 200 gives kGoodResp, anything else kBadResp. A connection that
//     closes gives kBadResp at any point of this.
//  4. send_file() looks once a second, takes the result and goes back to kNone.
//
// What goes wrong, and what it costs:
//  - No reply: 181 seconds, then the send has failed.
//  - A 200 whose connection closes before send_file() looks again: the send counts as failed, and
//    the file is sent once more.
//  - The server closed the idle connection before 1: there is no connection whose poll could write
//    the request, so it fails after the whole 181 seconds.
//  - A reply that comes while no request is open (after the 181 seconds, or one that nobody asked
//    for): its result stays, and the next send_file() waits for a kNone that does not come. Four
//    hours without activity end the configuration thread, and with it what feeds the systemd
//    watchdog, so that the service is started again.
//  - The host name does not resolve: the connect has failed, the next one starts afresh.
//  - A serving thread cannot be started: nothing is sent, and the next connect leaves behind the
//    Mongoose server that nobody served.
//
// Stopping and restarting. Whoever holds the claim on a logConsumerProxy (`served`) owns its
// Mongoose server: polls, destroys or replaces it. The serving thread claims it when it starts and
// lets it go when it has destroyed the server; a reconnect asks the thread to stop, gives it three
// seconds, and then waits for the claim itself. So two threads never poll one server, no server is
// freed under its thread, and a thread that starts late finds either a server to serve or another
// one serving it.
//
// The process may end at any moment, on any thread, while a serving thread polls: the registered
// objects are therefore never destroyed. An object whose serving thread was started stays
// registered until the process ends; one that a later engine's replaces is kept beside it.
#ifndef LOG_CONSUMER_QV_LOG_CONSUMER_MG_H
#define LOG_CONSUMER_QV_LOG_CONSUMER_MG_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "log_consumer/qv_log_consumer_shared.h"
#include "mongoose.h"

inline constexpr int kPollMilliseconds = 2000;           ///< a serving thread's poll waits at most
inline constexpr unsigned kSecondsBetweenIdlePolls = 1;  ///< of a server without connections
inline constexpr int kReplyChecks = 181;                 ///< looks at a request before it fails
inline constexpr unsigned kSecondsBetweenChecks = 1;     ///< from one look to the next
inline constexpr unsigned kSecondsToStop = 3;            ///< given to a thread before a reconnect
inline constexpr unsigned kSecondsToTerminate = 1;       ///< given to each thread at the end

/// Bytes from which on a buffer is taken from the system by itself and given back to it when it is
/// freed: the C library's own initial threshold.
inline constexpr std::size_t kLargeBuffer = std::size_t{128} * 1024;

/// Tags of the two servers' connections. The event handler knows a connection by the address of
/// its tag, not by the text.
extern const char dataUploadConn[];  ///< "DataServer"
extern const char relaySrvConn[];    ///< "RelayServer"

/// Where the current request of a connection stands.
enum mongooseFileSendState : std::int32_t {
  kNone = 0,             ///< idle: a new request may start
  kProcessing = 1,       ///< send_file() is loading the request
  kOutgoingPending = 2,  ///< loaded: the serving thread writes it at its next poll
  kWaitingResp = 3,      ///< written
  kGoodResp = 4,         ///< the server answered 200
  kBadResp = 5,          ///< another answer, an unusable one, or the connection closed
};

/// A Mongoose server and the control of the thread that serves it. The server's user parameter is
/// the logConsumerProxy itself.
struct logConsumerProxy {
  /// Polled, replaced and destroyed by whoever holds the claim; the upload thread connects through
  /// it without.
  struct mg_server* mg_server_ptr = nullptr;
  std::time_t idle_timeout = 0;        ///< not used
  struct timespec start = {};          ///< not used
  std::atomic<bool> alive{false};      ///< set and cleared with the thread; nothing reads it
  std::atomic<bool> exit_flag{false};  ///< asks the thread to stop; it clears it when it has
  servers serverType = kDataUploadSrv;

  std::atomic<bool> served{false};  ///< the claim, see above
};

/// The connection to one server. One thread, the upload thread, connects and sends; the handlers
/// run on the serving thread.
class LogConsumerMongooseClass {
 public:
  std::string ip;  ///< for the owner; not used here
  std::string port;
  std::string name;
  logConsumerProxy info;

  /// The current connection, written by the upload thread. Null before the first connect and
  /// after one that failed at once. Otherwise this object has connected before, and the pointer
  /// may be dead: only an event of a connection says that it lives. The tag is stored after
  /// `client`, so an event that carries a tag belongs to `client`.
  struct mg_connection* client = nullptr;

  std::mutex stateMutex;  ///< guards `state`, for the access only
  mongooseFileSendState state = kNone;
  std::vector<char> fileData;  ///< the request, kept until the next one or free_large_request()
  int fileLength = 0;          ///< how many of its bytes to write; never more than there are

  /// Guards `fileData` and `fileLength` when a request has timed out just as it is written:
  /// the next one must not be loaded meanwhile. Held around `stateMutex`, never inside it.
  std::mutex requestMutex;

  /// Starts a connection; MG_CONNECT reports that it stands. On an object that has connected
  /// before, its Mongoose server is replaced first, which takes three seconds and more. TLS exactly
  /// when the port is 443. A connection that cannot be started clears the server's connect-done
  /// flag.
  void connect_proxy_client(std::string host, int port);

  /// Sends one request and waits for its outcome, up to about three minutes, after waiting for the
  /// one before it to finish, without limit.
  /// @param length  how many bytes of `data` to send
  /// @return true only when the server answered 200.
  bool send_file(std::vector<char> data, int length);

  /// Gives the memory of the last request back, if it is worth it (kLargeBuffer); its outcome is
  /// known. Any thread, while no send_file() runs.
  void free_large_request() {
    const std::lock_guard<std::mutex> lock(requestMutex);
    if (fileData.capacity() < kLargeBuffer) return;
    std::vector<char>().swap(fileData);
  }

  /// Serving thread, at each poll: writes a request that is pending.
  void send_receive();

  /// Serving thread, at a reply: judges it by its status code.
  void response_handler();

  /// Serving thread, at a close: fails an open request.
  void connection_closed();
};

/// The object of each server, for the event handler. Written at start-up, before the object's
/// thread; never destroyed, see above.
extern std::shared_ptr<LogConsumerMongooseClass> dataUploadServer;
extern std::shared_ptr<LogConsumerMongooseClass> relayServer;

/// Gives the object its Mongoose server and registers it by its `info.serverType`. A server that
/// cannot be created is logged and stays null; later connects then fail.
void init_lc_mg_client(std::shared_ptr<LogConsumerMongooseClass>& server);

/// Starts the serving thread.
void exec_lc_mg_client(std::shared_ptr<LogConsumerMongooseClass>& server);

/// Asks the serving thread to stop and waits a second, which may be less than the thread needs.
void terminate_lc_mg_client(std::shared_ptr<LogConsumerMongooseClass>& server);

/// The serving thread: polls until it is asked to stop, then destroys the server. Returns at once
/// when `info` or its server is null, or when another thread serves it.
/// @param info  a logConsumerProxy   @return null
void* serving_thread_func(void* info);

/// The event handler of both servers.
/// @return what Mongoose makes of it: see mongoose.h.
int proxy_ev_handler(struct mg_connection* connection, enum mg_event event);

#endif
