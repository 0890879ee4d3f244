// The server that a device uploads to: data upload server and relay server on one port.
//
// It keeps what arrives, answers 200, and can be told to answer in any other way or not at all.
// One thread accepts, and each connection has its own, with plain blocking sockets. The methods
// may be called from any thread.
#ifndef LAB_UPLOAD_SERVER_UPLOAD_SERVER_H
#define LAB_UPLOAD_SERVER_UPLOAD_SERVER_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <thread>
#include <vector>

#include "lab/support/unique_fd.h"
#include "lab/upload_server/reply.h"
#include "lab/upload_server/upload_parser.h"

struct ssl_ctx_st;

namespace lab {

/// What became of one upload.
struct UploadReport {
  unsigned number = 0;      ///< 1, 2, 3 ... in the order in which the uploads ended
  unsigned connection = 0;  ///< 1, 2, 3 ... in the order in which connections were accepted
  std::string time;         ///< when its last byte came, see utc_now()
  Upload upload;
  int status = 0;  ///< what was answered; 0: nothing that is an HTTP status
  /// "answered", "closed in the request", "closed without an answer", "closed in the answer",
  /// "closed after the answer", "left without an answer", "cut off by the client", "client gone".
  std::string outcome;

  /// The client got a whole answer with status 200.
  bool accepted() const;
};

/// The report without the bytes: number, connection, time, kind, fields, file_name, bytes,
/// request_bytes, sha256, problem, status, outcome.
nlohmann::ordered_json to_json(const UploadReport& report);

class UploadServer {
 public:
  struct Settings {
    std::string address = "127.0.0.1";  ///< numeric, IPv4 or IPv6
    std::uint16_t port = 0;             ///< 0: any free one
    std::string certificate;            ///< PEM file with the chain; empty: plain TCP
    std::string key;                    ///< PEM file
    bool keep_bytes = true;             ///< reports() hold the bytes, not only the report
    /// Called for each upload when its fate is known, one at a time, on a thread of the server.
    /// Must not throw.
    std::function<void(const UploadReport&)> on_upload;
    /// Likewise for a connection that came to nothing, with the reason.
    std::function<void(unsigned connection, const std::string& problem)> on_failed_connection;
  };

  /// Listens at once. @throws std::runtime_error saying what is not possible.
  explicit UploadServer(Settings settings);
  /// Drops all connections and ends all threads.
  ~UploadServer();
  UploadServer(const UploadServer&) = delete;
  UploadServer& operator=(const UploadServer&) = delete;

  std::uint16_t port() const { return port_; }

  /// The next `times` uploads that fit get this answer; after those scripted before.
  void script(const Reply& reply, unsigned times = 1);
  /// All uploads without a scripted answer get this one.
  void set_default_reply(const Reply& reply);
  void clear_script();
  /// The next connections are closed as soon as they are accepted.
  void refuse_connections(unsigned times);

  /// Closes the port and all connections: connecting is refused until resume().
  void pause();
  /// Listens again on the same port. @throws std::runtime_error when it is taken.
  void resume();
  /// Closes all connections; new ones are welcome.
  void drop_connections();

  std::vector<UploadReport> reports() const;
  /// @return false when fewer than `count` uploads ended within the time.
  bool wait_for_reports(std::size_t count, std::chrono::seconds timeout) const;
  unsigned connections_accepted() const;
  unsigned connections_open() const;

 private:
  class Connection;
  struct TlsContextDeleter {
    void operator()(ssl_ctx_st* context) const;
  };

  void load_certificate();
  void listen();
  void accept_loop();
  void welcome(UniqueFd socket);
  void join_finished(bool all);
  Reply next_reply(UploadKind kind);
  void note(UploadReport report);

  const Settings settings_;
  std::uint16_t port_ = 0;
  std::unique_ptr<ssl_ctx_st, TlsContextDeleter> tls_;
  UniqueFd listener_;
  UniqueFd wake_;  // readable: the accepting thread ends
  std::thread acceptor_;
  std::mutex lifecycle_;  // pause() and resume()

  mutable std::mutex mutex_;  // guards all below
  mutable std::condition_variable changed_;
  std::deque<Reply> script_;
  Reply default_reply_;
  unsigned refuse_ = 0;
  unsigned accepted_ = 0;
  std::vector<UploadReport> reports_;
  std::list<std::unique_ptr<Connection>> connections_;
  std::mutex callback_;  // one on_... at a time
};

}  // namespace lab

#endif
