// Bytes over a connected, non-blocking socket: as they are, or through TLS.
#ifndef COMPAT_MONGOOSE_TRANSPORT_H
#define COMPAT_MONGOOSE_TRANSPORT_H

#include <cstddef>
#include <memory>
#include <string>

namespace mg_facade {

/// What one attempt gave. After a kWant... the same call is to be made again once the socket is
/// ready for it (with TLS, reading may want to write and the other way round).
struct Attempt {
  enum Result {
    kDone,       ///< `size` bytes were moved (for a handshake: it stands)
    kWantRead,   ///< wait until the socket can be read
    kWantWrite,  ///< wait until the socket can be written
    kEnd,        ///< the peer has ended its side in order
    kFailed      ///< broken. After a write, read() may be tried once: a reply may lie there already
  };
  Result result;
  std::size_t size = 0;
};

/// Never blocks, never raises SIGPIPE. Used by one thread at a time. Does not own the socket, which
/// must stay open until this object is gone.
class Transport {
 public:
  virtual ~Transport() = default;
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

  /// To be called until it is kDone, before the first read or write.
  virtual Attempt handshake() = 0;
  virtual Attempt read(char* bytes, std::size_t size) = 0;
  virtual Attempt write(const char* bytes, std::size_t size) = 0;

 protected:
  Transport() = default;
};

/// Plain TCP.
std::unique_ptr<Transport> make_tcp_transport(int socket);

/// TLS 1.2 or newer, as a client of `host` (a name or a numeric address).
///
/// SSL_CERT_FILE (a PEM bundle) and SSL_CERT_DIR (folders of hashed certificates, with colons
/// between them) configure the trust anchors; each one that is set must be usable. The certificate
/// must then be valid, issued under one of them, and made out to `host`. Where neither is set,
/// nothing is verified, and one warning per process says so.
///
/// The anchors are read once per process, at the first success. A refused certificate and a failed
/// handshake each leave one syslog line of priority LOG_ERR.
/// @return null when the configured anchors cannot be used; a LOG_ERR line says why
std::unique_ptr<Transport> make_tls_transport(int socket, const std::string& host);

}  // namespace mg_facade

#endif
