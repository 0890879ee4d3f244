// The look-up of trust anchors by itself, asked by two threads at once.
#include "compat/mongoose/trust_bundle.h"

#include <openssl/pem.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "compat/mongoose/openssl_ptr.h"
#include "gtest/gtest.h"
#include "tests/support/test_certificates.h"

namespace {

using test_support::Identity;
using test_support::make_self_signed;
using test_support::make_signed;

using mg_facade::OpensslPtr;
using CertificatePtr = OpensslPtr<X509, X509_free>;
using StorePtr = OpensslPtr<X509_STORE, X509_STORE_free>;
using VerificationPtr = OpensslPtr<X509_STORE_CTX, X509_STORE_CTX_free>;

CertificatePtr read(const std::string& pem) {
  const OpensslPtr<BIO, BIO_free> text(BIO_new_mem_buf(pem.data(), -1));
  return CertificatePtr(PEM_read_bio_X509(text.get(), nullptr, nullptr, nullptr));
}

// An authority that has renewed itself several times; the one that is valid stands last.
class RenewedAuthority : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(file_.empty());
    std::ofstream file(file_);
    constexpr int kExpired = 20;
    for (int number = 0; number < kExpired; ++number)
      file << make_self_signed({"Authority", "", -3, -1}, true).certificate;
    file << authority_.certificate;
  }
  void TearDown() override { unlink(file_.c_str()); }

  static std::string make_file() {
    std::string name = testing::TempDir() + "trust_bundle.XXXXXX";
    const int descriptor = mkstemp(name.data());
    if (descriptor < 0) return "";
    close(descriptor);
    return name;
  }

  const std::string file_ = make_file();
  const Identity authority_ = make_self_signed({"Authority", "", -1, 1}, true);
  const Identity server_ = make_signed({"localhost", "DNS:localhost", -1, 1}, authority_);
};

// Both need the last anchor of the name, and one of them asks while the other puts them in.
TEST_F(RenewedAuthority, IsFoundByEachOfTwoThreads) {
  constexpr int kRounds = 30;
  for (int round = 0; round < kRounds; ++round) {
    const StorePtr store(X509_STORE_new());
    ASSERT_TRUE(mg_facade::add_trust_bundle(store.get(), file_.c_str()));
    std::atomic<int> ready{0};
    const auto verify = [&](long& verdict) {
      const CertificatePtr certificate = read(server_.certificate);
      const VerificationPtr verification(X509_STORE_CTX_new());
      X509_STORE_CTX_init(verification.get(), store.get(), certificate.get(), nullptr);
      ++ready;
      while (ready < 2)
        std::this_thread::yield();
      X509_verify_cert(verification.get());
      verdict = X509_STORE_CTX_get_error(verification.get());
    };
    long first = -1;
    long second = -1;
    std::thread other([&] { verify(second); });
    verify(first);
    other.join();
    ASSERT_EQ(first, X509_V_OK) << X509_verify_cert_error_string(first) << ", round " << round;
    ASSERT_EQ(second, X509_V_OK) << X509_verify_cert_error_string(second) << ", round " << round;
  }
}

}  // namespace
