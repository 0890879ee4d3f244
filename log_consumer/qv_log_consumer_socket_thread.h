// The upload engine.
//
// The life of one file:
//  1. A producer writes NAME.gz into its kind's directory, mode 0644: the file waits.
//  2. A pass reaches the kind while its sending slot is open and its server is connected.
//  3. The kind's files are listed, by `find` or by reading the directory.
//  4. The file is a candidate if its mode is exactly 0644 and no process holds it open.
//  5. Five seconds later it is read whole and framed as one request (raw bytes for the relay).
//  6. The connection sends the bytes and waits for the server's status; 200 is success.
//  7. The file's mode becomes 0400: it is sent, and no pass looks at it again.
//
// What goes wrong, and what it costs:
//  - The file vanishes or cannot be read before 5: nothing is sent, the kind's walk ends.
//  - The send fails: one reconnect if the connection is down, one more try, then 10 s of pause and
//    the kind's walk ends; the file still waits and is sent on a later pass.
//  - The mark fails: the file still waits and is sent again.
//  - The process dies between 6 and 7: the file is sent again by the next start.
//  - The file grows or is replaced between 5 and 7: what was read is what was sent, yet the mark
//    goes to what stands under the name then. Producers rename finished files into place.
#ifndef LOG_CONSUMER_QV_LOG_CONSUMER_SOCKET_THREAD_H
#define LOG_CONSUMER_QV_LOG_CONSUMER_SOCKET_THREAD_H

#include <netinet/in.h>

#include <memory>
#include <string>
#include <vector>

#include "log_consumer/qv_log_consumer_logger.h"
#include "log_consumer/qv_log_consumer_mg.h"
#include "log_consumer/qv_log_consumer_shared.h"
#include "log_consumer/qv_log_finder.h"

/// The upload engine: walks the log kinds, sends what waits, marks what was sent.
/// Everything runs on the thread that calls execute(); results are 0 for success and 1 for failure.
class LogConsumer {
 public:
  LogConsumerLogger logger;              ///< the activity log
  std::vector<logConsumerType> logInfo;  ///< own copy of the table of kinds
  int dataUploadSockfd = -1;             ///< start-up probe's socket, owned; -1 when there is none
  int relayServerSockfd = -1;
  struct sockaddr_in servAddr = {};  ///< address that the last probe resolved
  std::shared_ptr<LogConsumerMongooseClass> dataUploadProxy;  ///< connection of each server
  std::shared_ptr<LogConsumerMongooseClass> relayServerProxy;

  LogConsumer();
  ~LogConsumer();
  LogConsumer(const LogConsumer&) = delete;
  LogConsumer& operator=(const LogConsumer&) = delete;

  /// Takes the table, probes both servers if Wi-Fi is associated, then stores the pause and the
  /// address and port (the same pair for both servers) in the shared record.
  void init(std::vector<logConsumerType>& table, int sleepSeconds, std::string server, int port);

  /// Passes over all kinds until a pass ends with a reset or for want of activity.
  void execute();

  /// Does nothing; execute() ends by itself.
  void terminate();

  /// @return false when the file may be sent now: its mode is exactly 0644 and no process holds it
  /// open. True otherwise, and after any error.
  bool checkReadOnly(std::string path);

  /// @return the names in a directory without "." and "..", in the directory's order; empty when
  /// it cannot be opened.
  std::vector<std::string> getFileList(std::string directory);

  /// @return how many entries contain ".gz" and may be sent now.
  /// @param fromFinder  the entries are full paths, not names in `directory`
  int getNotReadOnlySize(const std::vector<std::string>& files, std::string directory,
                         bool fromFinder);

  /// Marks a file as sent, as execute() does by itself. @return the result of chmod().
  int setReadOnly(std::string path);

  /// Sleeps the shared pause, `sleepSeconds`. A negative one, multiplied by usleep()'s 1,000,000 in
  /// 32 bits, is a long one: -1 is 4293 s.
  void sleepSharedSeconds();

  /// Sends one file, with one retry. See qv_log_consumer_upload.h for the bytes.
  /// @param filename  full path   @param filetype  upload name of the kind
  /// @return 0 when the server accepted the file, 1 otherwise.
  int sendFile(const std::string& filename, const std::string& filetype, servers logSrv,
               const std::string& shortFilename);

  /// Start-up probes: resolve and connect to the server, blocking, and record the outcome in its
  /// connect-done flag; only when the device is known to the servers.
  void initDataUploadSocket();
  void initRelayServerSocket();

  /// Judges a whole HTTP answer by the member "code" of its JSON body.
  /// @param recvBuffer  NUL-terminated, not null   @return 0 when "code" is 1, 1 otherwise.
  int parseResponse(const char* recvBuffer);
};

#endif
