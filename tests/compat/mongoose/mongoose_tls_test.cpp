// TLS: whom it trusts, what it says when it does not, and that the bytes are the same as without.
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <thread>

#include "compat/mongoose/mongoose.h"
#include "compat/mongoose/openssl_ptr.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/compat/mongoose/client.h"
#include "tests/support/scripted_server.h"
#include "tests/support/test_certificates.h"

namespace {

using namespace std::chrono_literals;
using namespace test_support;
using mongoose_test::Client;
using mongoose_test::Events;
namespace fs = std::filesystem;

const std::string kRequest = "GET / HTTP/1.1\r\n\r\n";
const std::string kOk = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello";
const std::string kAnswered = "CONNECT\nREPLY 200 OK [hello]\n";
const std::string kClosed = "CLOSE\n";
const std::string kEnd = "exit 0";

Step expect_request() {
  return expect_text("\r\n\r\n");
}
Script answering() {
  return {expect_request(), send_bytes(kOk)};
}

const Identity& authority() {
  static const Identity identity = make_self_signed({"Test Authority", "", -1, 1}, true);
  return identity;
}

const Identity& for_localhost() {
  static const Identity identity =
      make_signed({"localhost", "DNS:localhost,IP:127.0.0.1", -1, 1}, authority());
  return identity;
}

ScriptedServer::Options with(const Identity& identity, int version = 0) {
  ScriptedServer::Options options;
  options.tls = &identity;
  options.tls_version = version;
  return options;
}

std::string refusal(const std::string& host, long verdict, const std::string& hint = "") {
  return "syslog 3 TLS: certificate of " + host +
         " refused: " + X509_verify_cert_error_string(verdict) + hint + "\n";
}
const std::string kClockHint = " (or is this device's clock wrong?)";

using CertificatePtr = mg_facade::OpensslPtr<X509, X509_free>;
using BioPtr = mg_facade::OpensslPtr<BIO, BIO_free>;

CertificatePtr certificate_of(const std::string& pem) {
  const BioPtr text(BIO_new_mem_buf(pem.data(), -1));
  return CertificatePtr(PEM_read_bio_X509(text.get(), nullptr, nullptr, nullptr));
}

// The name under which OpenSSL looks for a certificate in a folder.
std::string hashed_name(const std::string& pem) {
  std::ostringstream name;
  name << std::hex << std::setw(8) << std::setfill('0')
       << X509_subject_name_hash(certificate_of(pem).get());
  return name.str() + ".0";
}

// The same certificate with a last element, the signature, that is no bit string any more.
std::string with_broken_signature(const std::string& pem) {
  const CertificatePtr certificate = certificate_of(pem);
  unsigned char* bytes = nullptr;
  const int size = i2d_X509(certificate.get(), &bytes);
  const ASN1_BIT_STRING* signature = nullptr;
  X509_get0_signature(&signature, nullptr, certificate.get());
  constexpr int kHead = 3;  // tag, length, unused bits
  bytes[size - signature->length - kHead] = V_ASN1_OCTET_STRING;
  const BioPtr damaged(BIO_new(BIO_s_mem()));
  PEM_write_bio(damaged.get(), PEM_STRING_X509, "", bytes, size);
  char* written = nullptr;
  const long length = BIO_get_mem_data(damaged.get(), &written);
  std::string result(written, static_cast<std::size_t>(length));
  OPENSSL_free(bytes);
  return result;
}

// ---- Trust, seen from a process of its own for each case ----

class Trust : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = testing::TempDir() + "trust.XXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    folder_ = name;
    bundle_ = write("authority.pem", authority().certificate);
  }
  void TearDown() override { fs::remove_all(folder_); }

  std::string write(const std::string& name, const std::string& text) const {
    const fs::path path = folder_ / name;
    std::ofstream(path) << text;
    return path;
  }

  // What the probe prints, and its exit status.
  static std::string probe(const std::string& environment, const std::string& arguments) {
    const std::string command = "env -u SSL_CERT_FILE -u SSL_CERT_DIR " + environment + " " +
                                MONGOOSE_PROBE + " " + arguments + " 2>&1";
    FILE* const pipe = popen(command.c_str(), "r");
    std::string output;
    for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe))
      output.push_back(static_cast<char>(c));
    const int status = pclose(pipe);
    return output + "exit " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -status);
  }

  std::string trusting(const std::string& arguments) const {
    return probe("SSL_CERT_FILE=" + bundle_, arguments);
  }

  static std::string tls(const std::string& host, const ScriptedServer& server) {
    return "tls " + host + " " + std::to_string(server.port()) + " ";
  }

  // A server with this certificate is refused for this reason, and gets no byte of the request.
  void expect_refused(const Identity& identity, const std::string& host, long verdict,
                      const std::string& hint = "") const {
    ScriptedServer server({answering()}, with(identity));
    EXPECT_EQ(trusting(tls(host, server)), kClosed + refusal(host, verdict, hint) + kEnd);
    EXPECT_EQ(server.received(), "");
  }

  fs::path folder_;
  std::string bundle_;
};

TEST_F(Trust, InTheConfiguredAuthority) {
  ScriptedServer server({answering()}, with(for_localhost()));
  EXPECT_EQ(trusting(tls("localhost", server)), kAnswered + kEnd);
  EXPECT_EQ(server.received(), kRequest);
  EXPECT_EQ(server.server_name(), "localhost");
}

TEST_F(Trust, InACertificateForAnAddress) {
  ScriptedServer server({answering()}, with(for_localhost()));
  EXPECT_EQ(trusting(tls("127.0.0.1", server)), kAnswered + kEnd);
  EXPECT_EQ(server.server_name(), "") << "an address is no server name";
}

TEST_F(Trust, InAFolderOfHashedCertificates) {
  write(hashed_name(authority().certificate), authority().certificate);
  ScriptedServer server({answering()}, with(for_localhost()));
  EXPECT_EQ(probe("SSL_CERT_DIR=/nowhere:" + folder_.string(), tls("localhost", server)),
            kAnswered + kEnd);
}

TEST_F(Trust, NotInAnotherName) {
  expect_refused(make_signed({"other.example", "DNS:other.example", -1, 1}, authority()),
                 "localhost", X509_V_ERR_HOSTNAME_MISMATCH);
}

TEST_F(Trust, NotInAnotherAddress) {
  expect_refused(make_signed({"other", "IP:127.0.0.2", -1, 1}, authority()), "127.0.0.1",
                 X509_V_ERR_IP_ADDRESS_MISMATCH);
}

TEST_F(Trust, NotInAnExpiredCertificate) {
  expect_refused(make_signed({"localhost", "DNS:localhost", -3, -1}, authority()), "localhost",
                 X509_V_ERR_CERT_HAS_EXPIRED, kClockHint);
}

TEST_F(Trust, NotInACertificateOfTheFuture) {
  expect_refused(make_signed({"localhost", "DNS:localhost", 1, 3}, authority()), "localhost",
                 X509_V_ERR_CERT_NOT_YET_VALID, kClockHint);
}

TEST_F(Trust, NotInASelfSignedCertificate) {
  expect_refused(make_self_signed({"localhost", "DNS:localhost", -1, 1}), "localhost",
                 X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT);
}

TEST_F(Trust, NotInAnotherAuthority) {
  const Identity stranger = make_self_signed({"Strange Authority", "", -1, 1}, true);
  expect_refused(make_signed({"localhost", "DNS:localhost", -1, 1}, stranger), "localhost",
                 X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
}

// Debian's bundle has some 140 authorities. An authority that renews itself is there twice for a
// while.
TEST_F(Trust, InOneOfManyAuthoritiesOfABundleWhereverItStands) {
  std::string others;
  for (int number = 0; number < 20; ++number) {
    others +=
        make_self_signed({"Authority " + std::to_string(number), "", -1, 1}, true).certificate;
  }
  const std::string namesake = make_self_signed({"Test Authority", "", -3, -1}, true).certificate;
  const std::string& wanted = authority().certificate;
  ScriptedServer server({answering()}, with(for_localhost()));
  for (const std::string& bundle :
       {wanted + others, others + wanted, "# notes\n" + others + "\n# more\n" + wanted + others,
        others + namesake + wanted, wanted + namesake + others, wanted + wanted}) {
    bundle_ = write("many.pem", bundle);
    EXPECT_EQ(trusting(tls("localhost", server) + tls("localhost", server)),
              kAnswered + kAnswered + kEnd);
  }
  bundle_ = write("without.pem", others + namesake);
  EXPECT_THAT(trusting(tls("localhost", server)), testing::StartsWith(kClosed));
}

TEST_F(Trust, InACertificateOfTheOldLabelAndOneWithItsTrust) {
  const auto relabelled = [](const std::string& label) {
    std::string text = authority().certificate;
    for (std::size_t at = 0; (at = text.find("CERTIFICATE", at)) != std::string::npos;
         at += label.size())
      text.replace(at, std::string("CERTIFICATE").size(), label);
    return text;
  };
  ScriptedServer server({answering()}, with(for_localhost()));
  for (const std::string label : {"X509 CERTIFICATE", "TRUSTED CERTIFICATE"}) {
    bundle_ = write("labelled.pem", relabelled(label));
    EXPECT_EQ(trusting(tls("localhost", server)), kAnswered + kEnd) << label;
  }
  bundle_ = write("labelled.pem", relabelled("NOTHING KNOWN"));
  EXPECT_THAT(trusting(tls("localhost", server)), testing::HasSubstr("no trust anchors"));
}

TEST_F(Trust, InWhatAFolderHasAndTheBundleHasNot) {
  const std::string other = make_self_signed({"Other Authority", "", -1, 1}, true).certificate;
  write(hashed_name(authority().certificate), authority().certificate);
  ScriptedServer server({answering()}, with(for_localhost()));
  EXPECT_EQ(
      probe("SSL_CERT_FILE=" + write("other.pem", other) + " SSL_CERT_DIR=" + folder_.string(),
            tls("localhost", server)),
      kAnswered + kEnd);
}

TEST_F(Trust, DamageInABundleIsAnErrorNotBlindTrust) {
  const std::string& text = authority().certificate;
  const std::string cut = text.substr(0, text.size() / 2);
  std::string no_base64 = text;
  no_base64[text.size() / 2] = '*';
  const std::string no_certificate =
      "-----BEGIN CERTIFICATE-----\nbm90aGluZw==\n-----END CERTIFICATE-----\n";
  ScriptedServer server({answering()}, with(for_localhost()));
  for (const std::string& damage : {cut, no_base64, no_certificate}) {
    bundle_ = write("damaged.pem", text + damage);
    EXPECT_THAT(trusting(tls("localhost", server)),
                testing::StartsWith(kClosed + "syslog 3 TLS: no trust anchors"))
        << damage;
  }
  EXPECT_EQ(server.received(), "");
}

// The name can be read, the key cannot: noticed when the certificate is needed.
TEST_F(Trust, NotInADamagedAuthority) {
  bundle_ = write("damaged.pem", with_broken_signature(authority().certificate));
  ScriptedServer server({answering()}, with(for_localhost()));
  EXPECT_THAT(trusting(tls("localhost", server) + tls("localhost", server)),
              testing::StartsWith(kClosed + "syslog 3 TLS: certificate of localhost refused: "));
  EXPECT_EQ(server.received(), "");
}

TEST_F(Trust, UnusableBundlesAreErrorsNotBlindTrust) {
  ScriptedServer server({answering()}, with(for_localhost()));
  for (const std::string& file :
       {write("empty.pem", ""), write("blank.pem", "\n\n"), write("garbage.pem", "garbage"),
        folder_.string() + "/missing.pem", folder_.string(), std::string()}) {
    const std::string output = probe("SSL_CERT_FILE=" + file, tls("localhost", server));
    std::string line = "syslog 3 TLS: no trust anchors in SSL_CERT_FILE ";
    line.append("\"").append(file).append("\": ");
    EXPECT_THAT(output, testing::StartsWith(line.insert(0, kClosed)));
    EXPECT_THAT(output, testing::EndsWith("\n" + kEnd));
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 2) << output;
  }
  EXPECT_EQ(server.received(), "");
}

TEST_F(Trust, UnreadableFoldersAreErrorsNotBlindTrust) {
  ScriptedServer server({answering()}, with(for_localhost()));
  for (const std::string& folders :
       {std::string("/nowhere"), std::string("/nowhere:/either"), bundle_, std::string()}) {
    std::string expected = kClosed;
    expected.append("syslog 3 TLS: no readable folder in SSL_CERT_DIR \"").append(folders);
    expected.append("\"\n").append(kEnd);
    EXPECT_EQ(probe("SSL_CERT_DIR=" + folders, tls("localhost", server)), expected);
  }
}

TEST_F(Trust, EachConfiguredPlaceMustBeUsable) {
  ScriptedServer server({answering()}, with(for_localhost()));
  EXPECT_THAT(
      probe("SSL_CERT_FILE=" + bundle_ + " SSL_CERT_DIR=/nowhere", tls("localhost", server)),
      testing::StartsWith(kClosed + "syslog 3 TLS: no readable folder"));
}

TEST_F(Trust, IsBlindWhereNothingIsConfiguredAndSaysSoOnce) {
  const Identity wrong = make_self_signed({"wrong", "DNS:wrong.example", -3, -1});
  ScriptedServer server({answering()}, with(wrong));
  EXPECT_EQ(probe("", tls("localhost", server) + tls("localhost", server)),
            kAnswered +
                "syslog 4 TLS: neither SSL_CERT_FILE nor SSL_CERT_DIR is set, servers are not "
                "verified\n" +
                kAnswered + kEnd);
  EXPECT_EQ(server.server_name(), "localhost");
}

TEST_F(Trust, IsReadOncePerProcess) {
  ScriptedServer server({answering()}, with(for_localhost()));
  EXPECT_EQ(
      trusting(tls("localhost", server) + "sh 'rm " + bundle_ + "' " + tls("localhost", server)),
      kAnswered + kAnswered + kEnd);
}

TEST_F(Trust, IsReadAgainAfterItCouldNotBe) {
  ScriptedServer server({answering()}, with(for_localhost()));
  const std::string later = folder_.string() + "/later.pem";
  const std::string output =
      probe("SSL_CERT_FILE=" + later, tls("localhost", server) + "sh 'cp " + bundle_ + " " + later +
                                          "' " + tls("localhost", server));
  EXPECT_THAT(output, testing::StartsWith(kClosed + "syslog 3 TLS: no trust anchors"));
  EXPECT_THAT(output, testing::EndsWith("\n" + kAnswered + kEnd));
}

TEST_F(Trust, NeedsTls12) {
  ScriptedServer modest({answering()}, with(for_localhost(), 0x0303));
  EXPECT_EQ(trusting(tls("localhost", modest)), kAnswered + kEnd);
  // A machine whose own policy is lax changes nothing.
  const std::string lax = write("lax.cnf",
                                "openssl_conf=a\n[a]\nssl_conf=b\n[b]\nsystem_default=c\n[c]\n"
                                "MinProtocol=TLSv1\nCipherString=DEFAULT@SECLEVEL=0\n");
  ScriptedServer old({answering()}, with(for_localhost(), 0x0302));
  const std::string output =
      probe("OPENSSL_CONF=" + lax + " SSL_CERT_FILE=" + bundle_, tls("localhost", old));
  EXPECT_THAT(output,
              testing::StartsWith(kClosed + "syslog 3 TLS: handshake with localhost failed: "));
  EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 2) << output;
}

TEST_F(Trust, AServerWithoutTlsFailsTheHandshake) {
  ScriptedServer server({{expect_bytes(1), send_bytes(kOk)}});
  EXPECT_THAT(trusting(tls("localhost", server)),
              testing::StartsWith(kClosed + "syslog 3 TLS: handshake with localhost failed: "));
}

TEST_F(Trust, AServerThatLeavesFailsTheHandshake) {
  for (const Step& leave : {close_connection(), reset_connection()}) {
    ScriptedServer server({{expect_bytes(1), leave}});
    EXPECT_THAT(trusting(tls("localhost", server)),
                testing::StartsWith(kClosed + "syslog 3 TLS: handshake with localhost failed: "));
  }
}

TEST_F(Trust, TheProcessMayExitInTheMiddleOfEverything) {
  ScriptedServer server({{expect_request(), send_bytes(kOk), expect_request(), send_bytes(kOk),
                          expect_request(), send_bytes(kOk)}},
                        with(for_localhost()));
  for (const int microseconds : {0, 100, 300, 1000, 3000, 10'000, 30'000, 100'000}) {
    EXPECT_EQ(
        trusting("exit " + std::to_string(server.port()) + " " + std::to_string(microseconds)),
        kEnd)
        << microseconds;
  }
}

// ---- The same bytes as without TLS; nothing is configured here, so nothing is verified ----

class Encrypted : public testing::TestWithParam<std::size_t> {
 protected:
  void SetUp() override {
    unsetenv("SSL_CERT_FILE");
    unsetenv("SSL_CERT_DIR");
  }

  static Events exchange(Script script, std::size_t count) {
    ScriptedServer server({std::move(script)}, with(for_localhost()));
    Client client;
    mg_write(client.connect("127.0.0.1", server.port(), true), kRequest.data(),
             static_cast<int>(kRequest.size()));
    EXPECT_TRUE(client.poll_until_events(count));
    EXPECT_EQ(server.received(), kRequest);
    return client.events;
  }

  static Step answer(std::string bytes) { return send_bytes(std::move(bytes), GetParam()); }
};

std::string cut_name(const testing::TestParamInfo<std::size_t>& cut) {
  return cut.param == 0 ? "all" : std::to_string(cut.param);
}
INSTANTIATE_TEST_SUITE_P(Cut, Encrypted, testing::Values(1, 2, 4, 13, 0), cut_name);

TEST_P(Encrypted, AnswerWithALength) {
  EXPECT_EQ(exchange({expect_request(), answer(kOk)}, 2),
            (Events{"CONNECT", "REPLY 200 OK [hello]"}));
}

TEST_P(Encrypted, AnswerWithoutALengthEndsAtTheClose) {
  EXPECT_EQ(
      exchange({expect_request(), answer("HTTP/1.1 200 OK\r\n\r\nall"), close_connection()}, 3),
      (Events{"CONNECT", "REPLY 200 OK [all]", "CLOSE"}));
}

TEST_P(Encrypted, AnswerWithoutALengthThatIsCutIsNone) {
  EXPECT_EQ(exchange({expect_request(), answer("HTTP/1.1 200 OK\r\n\r\nall"), cut_connection()}, 2),
            (Events{"CONNECT", "CLOSE"}))
      << "without the server's goodbye anybody may have cut it";
}

TEST_P(Encrypted, UnusableAnswer) {
  EXPECT_EQ(exchange({expect_request(), answer("garbage garbage")}, 3),
            (Events{"CONNECT", "REPLY unusable", "CLOSE"}));
}

class EncryptedUpload : public Encrypted {};
INSTANTIATE_TEST_SUITE_P(Whole, EncryptedUpload, testing::Values(0), cut_name);

// Written from outside, and in a handler, where what the socket takes goes out at once.
TEST_P(EncryptedUpload, OfEightMegabytesToASlowReaderBlocksNobody) {
  std::string request(8'000'001, '\0');
  std::uint32_t state = 7;
  for (char& byte : request) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<char>(state >> 24);
  }
  for (const bool in_handler : {false, true}) {
    std::atomic<bool> reading{false};
    ScriptedServer::Options options = with(for_localhost());
    options.receive_buffer = 4096;
    ScriptedServer server({{run([&] {
                              for (int i = 0; i < 30'000 && !reading; ++i) {
                                std::this_thread::sleep_for(2ms);
                              }
                            }),
                            expect_bytes(request.size()), send_bytes(kOk)}},
                          options);
    Client client;
    mg_connection* const connection = client.connect("127.0.0.1", server.port(), true);
    ASSERT_TRUE(client.poll_until_events(1));
    int queued = 0;
    const auto write = [&] {
      if (queued != 0) return;
      queued = mg_write(connection, request.data(), static_cast<int>(request.size()));
    };
    client.on_event = [&](mg_connection* /*connection*/, mg_event event) {
      if (event == MG_POLL) write();
      return event == MG_REPLY ? 1 : 0;
    };
    if (!in_handler) write();
    for (int i = 0; i < 5; ++i)
      EXPECT_EQ(client.poll(20), 1);
    EXPECT_EQ(queued, static_cast<int>(request.size()));
    reading = true;
    ASSERT_TRUE(client.poll_until_events(2));
    EXPECT_EQ(client.events.back(), "REPLY 200 OK [hello]");
    EXPECT_TRUE(server.received() == request) << in_handler;
  }
}

TEST_P(EncryptedUpload, ToAServerThatHasGoneGivesCloseNotSigpipe) {
  ScriptedServer server({{expect_request(), close_connection()}}, with(for_localhost()));
  Client client;
  mg_connection* const connection = client.connect("127.0.0.1", server.port(), true);
  mg_write(connection, kRequest.data(), static_cast<int>(kRequest.size()));
  ASSERT_TRUE(client.poll_until_events(1));
  // Written without a look at the server's goodbye: the first record is answered with a reset, the
  // next one finds a broken pipe.
  const std::string request(1'000'000, 'x');
  client.on_event = [&](mg_connection*, mg_event event) {
    if (event != MG_POLL) return 0;
    while (!server.ended())
      std::this_thread::sleep_for(2ms);
    mg_write(connection, request.data(), static_cast<int>(request.size()));
    return 0;
  };
  ASSERT_TRUE(client.poll_until_events(2));
  EXPECT_EQ(client.events, (Events{"CONNECT", "CLOSE"}));
}

TEST_P(EncryptedUpload, EndsWithAGoodbye) {
  ScriptedServer server({answering()}, with(for_localhost()));
  Client client;
  mg_write(client.connect("127.0.0.1", server.port(), true), kRequest.data(),
           static_cast<int>(kRequest.size()));
  ASSERT_TRUE(client.poll_until_events(2));
  client.destroy();
  while (!server.ended())
    std::this_thread::sleep_for(2ms);
  EXPECT_TRUE(server.said_goodbye());
}

}  // namespace
