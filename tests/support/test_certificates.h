// Certificates made on the spot, for tests of TLS connections.
#ifndef TESTS_SUPPORT_TEST_CERTIFICATES_H
#define TESTS_SUPPORT_TEST_CERTIFICATES_H

#include <string>

namespace test_support {

/// A certificate and its private key, both PEM texts.
struct Identity {
  std::string certificate;
  std::string key;
};

/// What a certificate says. Days count from now and may be negative.
struct CertificateFacts {
  std::string common_name;
  /// OpenSSL's notation, e.g. "DNS:localhost,IP:127.0.0.1"; "" for none
  std::string subject_alternative_names;
  int valid_from_days = -1;
  int valid_until_days = 1;
};

/// A certificate signed by its own key; with `authority` one that may sign others.
/// All functions throw std::runtime_error when OpenSSL refuses.
Identity make_self_signed(const CertificateFacts& facts, bool authority = false);

/// A server's certificate signed by `issuer`.
Identity make_signed(const CertificateFacts& facts, const Identity& issuer);

}  // namespace test_support

#endif
