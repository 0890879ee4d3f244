#include "tests/support/test_certificates.h"

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <stdexcept>

#include "compat/mongoose/openssl_ptr.h"

namespace test_support {
namespace {

using mg_facade::OpensslPtr;
using BioPtr = OpensslPtr<BIO, BIO_free_all>;
using KeyPtr = OpensslPtr<EVP_PKEY, EVP_PKEY_free>;
using CertificatePtr = OpensslPtr<X509, X509_free>;
using ExtensionPtr = OpensslPtr<X509_EXTENSION, X509_EXTENSION_free>;

void require(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(std::string("OpenSSL: ") + what);
}

BioPtr memory(const std::string& text) {
  BioPtr bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  require(bio != nullptr, "memory");
  return bio;
}

template <typename Write>
std::string to_pem(Write write) {
  const BioPtr bio(BIO_new(BIO_s_mem()));
  require(bio != nullptr && write(bio.get()) == 1, "PEM");
  char* text = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &text);
  return std::string(text, static_cast<std::size_t>(size));
}

void add_extension(X509* certificate, int kind, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  const ExtensionPtr extension(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
  require(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1, "extension");
}

void set_common_name(X509* certificate, const std::string& name) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(name.c_str());
  require(X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8, bytes,
                                     -1, -1, 0) == 1,
          "common name");
}

CertificatePtr make_unsigned(const CertificateFacts& facts, EVP_PKEY* key) {
  static long serial = 1000;
  constexpr long kDay = 86'400;
  CertificatePtr certificate(X509_new());
  require(certificate != nullptr, "certificate");
  X509_set_version(certificate.get(), X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), ++serial);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), facts.valid_from_days * kDay);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), facts.valid_until_days * kDay);
  set_common_name(certificate.get(), facts.common_name);
  require(X509_set_pubkey(certificate.get(), key) == 1, "public key");
  if (!facts.subject_alternative_names.empty()) {
    add_extension(certificate.get(), NID_subject_alt_name, facts.subject_alternative_names);
  }
  return certificate;
}

Identity sign(X509* certificate, const X509* issuer, EVP_PKEY* issuer_key, EVP_PKEY* key) {
  require(X509_set_issuer_name(certificate, X509_get_subject_name(issuer)) == 1, "issuer");
  require(X509_sign(certificate, issuer_key, EVP_sha256()) != 0, "signature");
  return {
      to_pem([&](BIO* bio) { return PEM_write_bio_X509(bio, certificate); }),
      to_pem([&](BIO* bio) {
        return PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
      }),
  };
}

KeyPtr make_key() {
  KeyPtr key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  require(key != nullptr, "key");
  return key;
}

}  // namespace

Identity make_self_signed(const CertificateFacts& facts, bool authority) {
  const KeyPtr key = make_key();
  const CertificatePtr certificate = make_unsigned(facts, key.get());
  if (authority) add_extension(certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
  return sign(certificate.get(), certificate.get(), key.get(), key.get());
}

Identity make_signed(const CertificateFacts& facts, const Identity& issuer) {
  const CertificatePtr issuer_certificate(
      PEM_read_bio_X509(memory(issuer.certificate).get(), nullptr, nullptr, nullptr));
  const KeyPtr issuer_key(
      PEM_read_bio_PrivateKey(memory(issuer.key).get(), nullptr, nullptr, nullptr));
  require(issuer_certificate != nullptr && issuer_key != nullptr, "issuer");
  const KeyPtr key = make_key();
  const CertificatePtr certificate = make_unsigned(facts, key.get());
  return sign(certificate.get(), issuer_certificate.get(), issuer_key.get(), key.get());
}

}  // namespace test_support
