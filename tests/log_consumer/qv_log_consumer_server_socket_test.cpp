// The start-up probes, against real listening, refusing and unresolvable servers. Each case runs
// for both servers: they differ in the fields that they use, not in what they do or say.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "log_consumer/qv_log_consumer_socket_thread.h"
#include "tests/support/journal.h"
#include "tests/support/scripted_server.h"

namespace {

using Shared = logConsumerSharedStruct;
using test_support::Journal;
using test_support::journal;
using test_support::RefusingPort;
using test_support::ScriptedServer;

bool noSockets = false;
bool noAddress = false;

}  // namespace

// While noAddress is set, what is found has no address.
extern "C" int getaddrinfo(const char* node, const char* service, const struct addrinfo* hints,
                           struct addrinfo** found) {
  static const auto real =
      reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  const int result = real(node, service, hints, found);
  if (result == 0 && noAddress) (*found)->ai_addrlen = 0;
  return result;
}

extern "C" int socket(int domain, int type, int protocol) noexcept {
  if (!noSockets) return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
  errno = EMFILE;
  return -1;
}

namespace {

// Closes what a test has opened.
class Descriptor {
 public:
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  ~Descriptor() { close(descriptor_); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int number() const { return descriptor_; }

 private:
  int descriptor_;
};

bool isOpen(int descriptor) {
  return fcntl(descriptor, F_GETFD) != -1;
}

int lowestFreeDescriptor() {
  const Descriptor probe(open("/dev/null", O_RDONLY));
  return probe.number();
}

class Probe : public testing::TestWithParam<servers> {
 protected:
  void SetUp() override {
    storeSharedDefaults();
    setDevice("bound", "AB12345678");
    setFlags(true);
    shared_set(otherAddress(), "other.invalid");
    test_support::clear_journal();
  }

  bool relay() const { return GetParam() == kRelaySrv; }
  std::string Shared::*address() const {
    return relay() ? &Shared::relayServerAddr : &Shared::dataUploadServerAddr;
  }
  std::string Shared::*otherAddress() const {
    return relay() ? &Shared::dataUploadServerAddr : &Shared::relayServerAddr;
  }

  static void setDevice(const std::string& aapState, const std::string& sysId) {
    shared_set(&Shared::aapStateStr, aapState);
    shared_set(&Shared::sysId, sysId);
  }

  static void setFlags(bool connected) {
    shared_set(&Shared::dataUploadConnectDone, connected);
    shared_set(&Shared::relayServerConnectDone, connected);
  }

  void setServer(const std::string& host, int port) const {
    shared_set(address(), host);
    shared_set(relay() ? &Shared::relayServerPort : &Shared::dataUploadServerPort, port);
  }

  void probe() {
    if (relay()) {
      engine.initRelayServerSocket();
    } else {
      engine.initDataUploadSocket();
    }
  }

  bool flag() const {
    return shared_get(relay() ? &Shared::relayServerConnectDone : &Shared::dataUploadConnectDone);
  }
  bool otherFlag() const {
    return shared_get(relay() ? &Shared::dataUploadConnectDone : &Shared::relayServerConnectDone);
  }
  int& sockfd() { return relay() ? engine.relayServerSockfd : engine.dataUploadSockfd; }
  int& otherSockfd() { return relay() ? engine.dataUploadSockfd : engine.relayServerSockfd; }

  void expectNoSocket() {
    EXPECT_EQ(sockfd(), -1);
    EXPECT_EQ(otherSockfd(), -1);
  }

  LogConsumer engine;
};

INSTANTIATE_TEST_SUITE_P(Servers, Probe, testing::Values(kDataUploadSrv, kRelaySrv),
                         [](const auto& server) {
                           return server.param == kRelaySrv ? "Relay" : "DataUpload";
                         });

TEST_P(Probe, ReachableServerLeavesAnOpenSilentSocket) {
  const ScriptedServer server({{test_support::read_to_end()}});
  setFlags(false);
  setServer("127.0.0.1", server.port());
  probe();
  EXPECT_EQ(journal(),
            (Journal{"syslog 7 Init data upload socket", "syslog 7 data upload socket connected"}));
  EXPECT_TRUE(flag());
  EXPECT_FALSE(otherFlag());
  ASSERT_GT(sockfd(), 0);
  EXPECT_EQ(otherSockfd(), -1);

  struct sockaddr_in peer = {};
  socklen_t size = sizeof peer;
  ASSERT_EQ(getpeername(sockfd(), reinterpret_cast<struct sockaddr*>(&peer), &size), 0);
  EXPECT_EQ(ntohs(peer.sin_port), server.port());
  EXPECT_EQ(engine.servAddr.sin_port, peer.sin_port);
  EXPECT_EQ(engine.servAddr.sin_addr.s_addr, peer.sin_addr.s_addr);
  ASSERT_TRUE(test_support::eventually([&] { return server.accepted() == 1; }));
  EXPECT_FALSE(server.ended());
  EXPECT_EQ(server.received(), "");
}

TEST_P(Probe, ServerNameIsResolved) {
  const ScriptedServer server({{test_support::read_to_end()}});
  setServer("localhost", server.port());
  probe();
  EXPECT_TRUE(flag());
  EXPECT_TRUE(isOpen(sockfd()));
}

TEST_P(Probe, EngineClosesItsSocketWhenItEnds) {
  const ScriptedServer server({{test_support::read_to_end()}});
  setServer("127.0.0.1", server.port());
  {
    LogConsumer shortLived;
    relay() ? shortLived.initRelayServerSocket() : shortLived.initDataUploadSocket();
    ASSERT_TRUE(test_support::eventually([&] { return server.accepted() == 1; }));
    EXPECT_FALSE(server.ended());
  }
  EXPECT_TRUE(test_support::eventually([&] { return server.ended(); }));
}

TEST_P(Probe, RefusedConnectionClosesTheSocket) {
  const RefusingPort refusing;
  setServer("127.0.0.1", refusing.port());
  const int expected = lowestFreeDescriptor();
  probe();
  EXPECT_EQ(journal(),
            (Journal{"syslog 7 Init data upload socket", "syslog 7 data upload connect failed",
                     "syslog 7 close the bad data upload socket " + std::to_string(expected)}));
  EXPECT_FALSE(flag());
  EXPECT_TRUE(otherFlag());
  EXPECT_FALSE(isOpen(expected));
  expectNoSocket();
}

TEST_P(Probe, UnresolvableAddressLeavesTheSocketMemberAlone) {
  setServer("device.invalid", 80);
  probe();
  EXPECT_EQ(journal(), (Journal{"syslog 7 Init data upload socket",
                                "syslog 7 getaddrinfo data upload failed"}));
  EXPECT_FALSE(flag());
  EXPECT_TRUE(otherFlag());
  expectNoSocket();

  sockfd() = 4711;
  probe();
  EXPECT_EQ(sockfd(), 4711);
}

TEST_P(Probe, EmptyAddressAndPortOfStartUpAreUnresolvable) {
  setServer("", -1);
  probe();
  EXPECT_EQ(journal().back(), "syslog 7 getaddrinfo data upload failed");
  EXPECT_FALSE(flag());
}

TEST_P(Probe, Ipv6AddressIsUnresolvable) {
  setServer("::1", 80);
  probe();
  EXPECT_EQ(journal().back(), "syslog 7 getaddrinfo data upload failed");
}

TEST_P(Probe, SocketThatCannotBeMadeIsClosedAllTheSame) {
  setServer("127.0.0.1", 80);
  sockfd() = 4711;
  noSockets = true;
  probe();
  noSockets = false;
  EXPECT_EQ(journal(),
            (Journal{"syslog 7 Init data upload socket", "syslog 7 data upload socket func failed",
                     "syslog 7 close the bad data upload socket -1"}));
  EXPECT_FALSE(flag());
  EXPECT_TRUE(otherFlag());
  expectNoSocket();
}

TEST_P(Probe, DescriptorZeroCountsAsFailure) {
  // No server that accepts: accept() reserves the lowest free descriptor while it waits.
  const RefusingPort port;
  setServer("127.0.0.1", port.port());
  const Descriptor kept(dup(STDIN_FILENO));
  close(STDIN_FILENO);
  probe();
  EXPECT_FALSE(isOpen(STDIN_FILENO));
  dup2(kept.number(), STDIN_FILENO);
  EXPECT_EQ(journal(),
            (Journal{"syslog 7 Init data upload socket", "syslog 7 data upload socket func failed",
                     "syslog 7 close the bad data upload socket 0"}));
  EXPECT_FALSE(flag());
  expectNoSocket();
}

TEST_P(Probe, ResultWithoutAnAddressIsNoServer) {
  setServer("127.0.0.1", 80);
  engine.servAddr.sin_port = 4711;
  noAddress = true;
  probe();
  noAddress = false;
  EXPECT_EQ(journal().at(1), "syslog 7 data upload connect failed");
  EXPECT_EQ(engine.servAddr.sin_port, 4711) << "the last address stays";
  EXPECT_FALSE(flag());
}

// --- devices that the servers do not know ---

TEST_P(Probe, UnregisteredDeviceOpensNoSocket) {
  const std::vector<std::pair<std::string, int>> states = {
      {"unregistered", 0}, {"registering", 1}, {"error", 5}, {"no such state", 5}};
  for (const auto& [text, number] : states) {
    setDevice(text, "AB12345678");
    test_support::clear_journal();
    probe();
    EXPECT_EQ(journal(),
              (Journal{"syslog 7 Might be NUV not registered = " + std::to_string(number) +
                           " or sysid with default = AB12345678",
                       "syslog 7 " + text}));
    EXPECT_TRUE(flag()) << "left as it was";
    EXPECT_FALSE(shared_get(&Shared::manualUpdate));
    expectNoSocket();
  }
}

TEST_P(Probe, FlagOfAnUnregisteredDeviceStaysClearToo) {
  setFlags(false);
  setDevice("registering", "AB12345678");
  probe();
  EXPECT_FALSE(flag());
}

TEST_P(Probe, RegisteredAndBindingDevicesAreProbed) {
  for (const char* const state : {"registered", "binding", "bound"}) {
    setDevice(state, "AB12345678");
    test_support::clear_journal();
    setServer("", -1);
    probe();
    EXPECT_EQ(journal().front(), "syslog 7 Init data upload socket") << state;
  }
}

TEST_P(Probe, PlaceholderIdOfABoundDeviceAsksForItsData) {
  setDevice("bound", "NUVSerialNumber");
  probe();
  EXPECT_EQ(journal(),
            (Journal{"syslog 7 Might be NUV not registered = 4 or sysid with default = "
                     "NUVSerialNumber",
                     "syslog 7 bound", "syslog 7 Manually getting data from pushpull, bad state"}));
  EXPECT_TRUE(shared_get(&Shared::manualUpdate));
  EXPECT_TRUE(flag()) << "left as it was";
  expectNoSocket();
}

TEST_P(Probe, PlaceholderIdOfAnotherDeviceAsksForNothing) {
  for (const char* const state : {"registered", "binding", "unregistered", "error"}) {
    setDevice(state, "NUVSerialNumber");
    test_support::clear_journal();
    probe();
    EXPECT_THAT(journal(), testing::SizeIs(2)) << state;
    EXPECT_FALSE(shared_get(&Shared::manualUpdate)) << state;
  }
}

TEST_P(Probe, TextsOfTheDeviceAreNoFormats) {
  setDevice("%s%n", "%n%d");
  probe();
  EXPECT_EQ(journal(),
            (Journal{"syslog 7 Might be NUV not registered = 5 or sysid with default = %n%d",
                     "syslog 7 %s%n"}));
}

}  // namespace
