#include <arpa/inet.h>
#include <dirent.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <sstream>

#include "compat/mongoose/openssl_ptr.h"
#include "compat/mongoose/transport.h"
#include "compat/mongoose/trust_bundle.h"

namespace mg_facade {
namespace {

using ContextPtr = OpensslPtr<SSL_CTX, SSL_CTX_free>;
using SessionPtr = OpensslPtr<SSL, SSL_free>;

std::string last_error() {
  std::array<char, 256> text = {};
  ERR_error_string_n(ERR_peek_last_error(), text.data(), text.size());
  return text.data();
}

bool use_bundle(X509_STORE* store, const char* file) {
  if (add_trust_bundle(store, file)) return true;
  syslog(LOG_ERR, "TLS: no trust anchors in SSL_CERT_FILE \"%s\": %s", file, last_error().c_str());
  return false;
}

// OpenSSL looks certificates up in the folders only when it needs them, and takes a folder that
// cannot be read for an empty one.
bool use_folders(X509_STORE* store, const char* folders) {
  std::istringstream names{std::string(folders)};
  std::string name;
  bool any_readable = false;
  while (std::getline(names, name, ':')) {
    DIR* const folder = opendir(name.c_str());
    any_readable = any_readable || folder != nullptr;
    if (folder != nullptr) closedir(folder);
  }
  if (any_readable && X509_STORE_load_path(store, folders) == 1) return true;
  syslog(LOG_ERR, "TLS: no readable folder in SSL_CERT_DIR \"%s\"", folders);
  return false;
}

bool configure_trust(SSL_CTX* context) {
  const char* const bundle = std::getenv("SSL_CERT_FILE");
  const char* const folders = std::getenv("SSL_CERT_DIR");
  if (bundle == nullptr && folders == nullptr) {
    syslog(LOG_WARNING,
           "TLS: neither SSL_CERT_FILE nor SSL_CERT_DIR is set, servers are not verified");
    SSL_CTX_set_verify(context, SSL_VERIFY_NONE, nullptr);
    return true;
  }
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  X509_STORE* const store = SSL_CTX_get_cert_store(context);
  return (bundle == nullptr || use_bundle(store, bundle)) &&
         (folders == nullptr || use_folders(store, folders));
}

ContextPtr make_context() {
  ContextPtr context(SSL_CTX_new(TLS_client_method()));
  if (!context || SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1) {
    syslog(LOG_ERR, "TLS: OpenSSL does not start: %s", last_error().c_str());
    return nullptr;
  }
  SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE |
                                      SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                      SSL_MODE_RELEASE_BUFFERS);
  SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION);
  return configure_trust(context.get()) ? std::move(context) : nullptr;
}

// Null until the trust anchors could be read once. Never freed: a serving thread may be in the
// middle of a handshake while exit() runs, so nothing of OpenSSL may be torn down. For that its
// very first call must be this initialisation.
SSL_CTX* shared_context() {
  static std::mutex mutex;
  static SSL_CTX* context = nullptr;
  const std::lock_guard<std::mutex> lock(mutex);
  OPENSSL_init_ssl(OPENSSL_INIT_NO_ATEXIT, nullptr);
  ERR_clear_error();
  if (context == nullptr) context = make_context().release();
  return context;
}

int send_without_signal(BIO* bio, const char* bytes, int size) {
  BIO_clear_retry_flags(bio);
  const auto sent = static_cast<int>(send(static_cast<int>(BIO_get_fd(bio, nullptr)), bytes,
                                          static_cast<std::size_t>(size), MSG_NOSIGNAL));
  if (BIO_sock_should_retry(sent) != 0) BIO_set_retry_write(bio);
  return sent;
}

// OpenSSL's socket BIO, but for SIGPIPE, which its write raises when the peer has gone.
const BIO_METHOD* quiet_socket() {
  static BIO_METHOD* const method = [] {
    BIO_METHOD* const made = BIO_meth_new(BIO_TYPE_SOCKET, "socket without SIGPIPE");
    const BIO_METHOD* const base = BIO_s_socket();
    BIO_meth_set_write(made, send_without_signal);
    BIO_meth_set_read(made, BIO_meth_get_read(base));
    BIO_meth_set_ctrl(made, BIO_meth_get_ctrl(base));
    BIO_meth_set_create(made, BIO_meth_get_create(base));
    BIO_meth_set_destroy(made, BIO_meth_get_destroy(base));
    return made;
  }();
  return method;
}

bool is_numeric_address(const std::string& host) {
  in6_addr space = {};
  return inet_pton(AF_INET, host.c_str(), &space) == 1 ||
         inet_pton(AF_INET6, host.c_str(), &space) == 1;
}

// Says whom the certificate must be made out to, and to a server with many names which is meant.
bool address_to(SSL* session, const std::string& host) {
  if (is_numeric_address(host)) {
    return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(session), host.c_str()) == 1;
  }
  SSL_set_hostflags(session, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  // Written out, because OpenSSL's macro casts const away in the old style. The name is copied.
  return SSL_ctrl(session, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                  const_cast<char*>(host.c_str())) == 1 &&
         SSL_set1_host(session, host.c_str()) == 1;
}

bool is_about_time(long verify_result) {
  return verify_result == X509_V_ERR_CERT_NOT_YET_VALID ||
         verify_result == X509_V_ERR_CERT_HAS_EXPIRED;
}

class TlsTransport final : public Transport {
 public:
  TlsTransport(SessionPtr session, std::string host)
      : session_(std::move(session)), host_(std::move(host)) {}

  // Tells the server that this end was meant; its answer is not waited for.
  ~TlsTransport() override {
    ERR_clear_error();
    if (usable_ && SSL_is_init_finished(session_.get()) != 0) SSL_shutdown(session_.get());
    ERR_clear_error();
  }

  Attempt handshake() override {
    prepare();
    const Attempt attempt = judge(SSL_connect(session_.get()));
    if (attempt.result == Attempt::kFailed || attempt.result == Attempt::kEnd) log_failure();
    return attempt;
  }

  Attempt read(char* bytes, std::size_t size) override {
    prepare();
    return judge(SSL_read(session_.get(), bytes, clamp(size)));
  }

  Attempt write(const char* bytes, std::size_t size) override {
    prepare();
    return judge(SSL_write(session_.get(), bytes, clamp(size)));
  }

 private:
  // SSL_get_error() looks at what lies in the thread's queue, and at errno.
  static void prepare() {
    ERR_clear_error();
    errno = 0;
  }

  static int clamp(std::size_t size) {
    return static_cast<int>(std::min<std::size_t>(size, INT_MAX));
  }

  Attempt judge(int returned) {
    if (returned > 0) return {Attempt::kDone, static_cast<std::size_t>(returned)};
    switch (SSL_get_error(session_.get(), returned)) {
      case SSL_ERROR_WANT_READ:
        return {Attempt::kWantRead};
      case SSL_ERROR_WANT_WRITE:
        return {Attempt::kWantWrite};
      case SSL_ERROR_ZERO_RETURN:
        return {Attempt::kEnd};
      default:
        usable_ = false;
        return {Attempt::kFailed};
    }
  }

  void log_failure() const {
    const int saved_errno = errno;
    const long verdict = SSL_get_verify_result(session_.get());
    if (verdict != X509_V_OK && SSL_get_verify_mode(session_.get()) != SSL_VERIFY_NONE) {
      syslog(LOG_ERR, "TLS: certificate of %s refused: %s%s", host_.c_str(),
             X509_verify_cert_error_string(verdict),
             is_about_time(verdict) ? " (or is this device's clock wrong?)" : "");
      return;
    }
    const char* reason = ERR_reason_error_string(ERR_peek_error());
    if (reason == nullptr) {
      reason = saved_errno == 0 ? "connection closed" : std::strerror(saved_errno);
    }
    syslog(LOG_ERR, "TLS: handshake with %s failed: %s", host_.c_str(), reason);
  }

  SessionPtr session_;
  std::string host_;
  bool usable_ = true;  // after a fatal error OpenSSL forbids further calls: all give kFailed
};

}  // namespace

std::unique_ptr<Transport> make_tls_transport(int socket, const std::string& host) {
  SSL_CTX* const context = shared_context();
  if (context == nullptr) return nullptr;
  SessionPtr session(SSL_new(context));
  BIO* const bio = session ? BIO_new(quiet_socket()) : nullptr;
  if (bio == nullptr) return nullptr;
  BIO_set_fd(bio, socket, BIO_NOCLOSE);
  SSL_set_bio(session.get(), bio, bio);
  if (!address_to(session.get(), host)) {
    syslog(LOG_ERR, "TLS: \"%s\" is no name that a certificate can have", host.c_str());
    return nullptr;
  }
  return std::make_unique<TlsTransport>(std::move(session), host);
}

}  // namespace mg_facade
