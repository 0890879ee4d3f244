// One accepted connection, plain or TLS, with blocking reads and writes.
#ifndef LAB_UPLOAD_SERVER_STREAM_H
#define LAB_UPLOAD_SERVER_STREAM_H

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

#include "lab/support/unique_fd.h"

struct ssl_st;
struct ssl_ctx_st;

namespace lab {

/// Everything but abort() belongs to one thread, which must have SIGPIPE blocked or ignored.
class Stream {
 public:
  explicit Stream(UniqueFd socket);
  ~Stream();
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  /// Makes it a TLS connection. @return what went wrong, or "".
  std::string start_tls(ssl_ctx_st* context);

  /// @return how many bytes came; 0 at the end, orderly or not.
  std::size_t read(char* buffer, std::size_t size);
  /// @return false when the peer cannot be reached any more.
  bool write(const char* data, std::size_t size);

  /// Ends the connection so that what was written still arrives.
  void close();
  /// Ends it with a reset: the peer gets an error, and what was written may be lost.
  void reset();

  /// Wakes the thread out of a read or write, which then fails. Any thread.
  void abort();

 private:
  struct TlsDeleter {
    void operator()(ssl_st* tls) const;
  };
  void drain();
  void close_socket();

  std::mutex mutex_;  // abort() against the closing of the socket
  UniqueFd socket_;
  std::unique_ptr<ssl_st, TlsDeleter> tls_;
};

}  // namespace lab

#endif
