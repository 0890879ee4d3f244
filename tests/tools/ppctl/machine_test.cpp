// ppctl as a program: the queues of this machine, and the doctor.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "tests/support/files.h"
#include "tests/support/message_queue.h"
#include "tests/tools/ppctl/child.h"
#include "tests/tools/ppctl/fake_store.h"
#include "tests/tools/ppctl/queue_names.h"

using ppctl_test::Child;
using ppctl_test::Ended;
using ppctl_test::FakeStore;
using ppctl_test::Json;
using ppctl_test::run_ppctl;
using test_support::MessageQueue;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

std::vector<Json> read_lines(const std::string& text) {
  std::vector<Json> values;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    values.push_back(Json::parse(line));
  return values;
}

// The findings about one subject.
std::vector<Json> findings(const Ended& ended, const std::string& subject) {
  std::vector<Json> found;
  for (const Json& finding : read_lines(ended.out)) {
    if (finding["subject"] == subject) found.push_back(finding);
  }
  return found;
}

Child::Setup with_busybox_find() {
  const std::string folder = "/tmp/busybox";
  std::filesystem::create_directory(folder);
  std::filesystem::create_symlink("/bin/busybox", folder + "/find");
  Child::Setup setup;
  setup.environment = {"PATH=" + folder + ":/usr/sbin:/usr/bin:/sbin:/bin"};
  return setup;
}

}  // namespace

TEST(PpctlQueues, ShowsEveryQueueWithItsLimits) {
  const FakeStore store;
  const MessageQueue small("/small", 2, 100);
  ASSERT_EQ(fchmod(small.descriptor(), 0620), 0);
  const Ended ended = run_ppctl({"queues", "--json"});
  EXPECT_EQ(ended.status, 0);
  EXPECT_EQ(ended.err, "");
  const auto lines = read_lines(ended.out);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0]["name"], "/pushpull");
  EXPECT_EQ(lines[0]["messages"], 0);
  EXPECT_EQ(lines[0]["max_messages"], 10);
  EXPECT_EQ(lines[0]["message_size"], 8192);
  EXPECT_EQ(lines[1]["name"], "/small");
  EXPECT_EQ(lines[1]["mode"], "0620");
  const struct passwd* const user = getpwuid(geteuid());
  EXPECT_EQ(lines[1]["owner"], user == nullptr ? std::to_string(geteuid()) : user->pw_name);
}

TEST(PpctlQueues, TellsWhetherTheServicesQueueFits) {
  const Ended ended = run_ppctl({"queues", "--json"});
  const auto lines = read_lines(ended.out);
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0]["max_messages"], 64);
  EXPECT_EQ(lines[0]["message_size"], 262144);
  EXPECT_EQ(lines[0].contains("advice"), !lines[0]["fits"].get<bool>());
  EXPECT_THAT(ppctl_test::queue_names(), ElementsAre());
}

TEST(PpctlQueues, IsATableForPeople) {
  const MessageQueue queue("/a_longer_name", 2, 100);
  ASSERT_EQ(fchmod(queue.descriptor(), 0640), 0);
  const Ended ended = run_ppctl({"queues", "a_longer_name"});
  std::istringstream lines(ended.out);
  std::string header;
  std::string row;
  std::string fit;
  std::getline(lines, header);
  std::getline(lines, row);
  std::getline(lines, fit);
  EXPECT_EQ(header, "QUEUE           MESSAGES   MAX     SIZE  MODE  OWNER");
  EXPECT_EQ(row.rfind("/a_longer_name         0     2      100  0640  ", 0), 0U) << row;
  EXPECT_EQ(fit.rfind("64 x 262144 ", 0), 0U) << fit;
}

TEST(PpctlQueues, ThatIsNamedAndDoesNotExistEndsWithStatusOne) {
  const Ended ended = run_ppctl({"queues", "/other"});
  EXPECT_EQ(ended.status, 1);
  EXPECT_EQ(ended.out, "");
  EXPECT_EQ(ended.err, "ppctl: no such queue: /other: No such file or directory\n");
}

TEST(PpctlQueues, MayBeNamedAsTheyAreListed) {
  const MessageQueue queue("/one", 2, 100);
  for (const char* const name : {"one", "/one", "/dev/mqueue/one"}) {
    const Ended ended = run_ppctl({"queues", "--json", name});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(read_lines(ended.out).at(0)["name"], "/one") << name;
    EXPECT_EQ(read_lines(ended.out).at(0)["max_messages"], 2) << name;
  }
}

TEST(PpctlQueues, ANameThatNoneCanHaveEndsWithStatusOne) {
  for (const std::string name :
       {"a/b", "/a/b", "/dev/mqueue/a/b", "/", ".", "..", "/dev/mqueue/"}) {
    const Ended ended = run_ppctl({"queues", name});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.out, "");
    EXPECT_EQ(ended.err, "ppctl: no such queue: " + name + ": no queue can have this name\n");
  }
}

TEST(PpctlDoctor, AsksTheStore) {
  const FakeStore store;
  const auto found = findings(run_ppctl({"doctor", "--json"}), "store");
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0]["level"], "ok");
  EXPECT_THAT(found[0]["finding"].get<std::string>(), HasSubstr("/pushpull answers, in "));
}

TEST(PpctlDoctor, EndsWithTheStoresStatusWhenItIsTheStore) {
  const Ended none = run_ppctl({"doctor"});
  EXPECT_EQ(none.status, 3);
  EXPECT_THAT(none.out, HasSubstr("wrong    store   store not reachable: its queue /pushpull does "
                                  "not exist -> start the store"));
  FakeStore::Setup setup;
  setup.serves = false;
  const FakeStore silent(setup);
  const Ended ended = run_ppctl({"doctor", "--timeout", "0.2"});
  EXPECT_EQ(ended.status, 4);
  EXPECT_THAT(ended.out, HasSubstr("wrong    store   the store has not answered within 0.2 s"));
}

TEST(PpctlDoctor, LooksAtEveryLogFolder) {
  const FakeStore store;
  std::filesystem::create_directories("/tarv/data/logs/debug");
  test_support::write_file("/tarv/data/logs/debug/a.gz", "a");
  test_support::write_file("/tarv/data/logs/debug/b.gz", "b", 0600);
  const auto found = findings(run_ppctl({"doctor", "--json"}), "logs");
  EXPECT_EQ(found.size(), 14U);
  std::size_t missing = 0;
  for (const Json& finding : found) {
    if (finding["level"] == "note") ++missing;
    if (finding["level"] != "warning") continue;
    EXPECT_EQ(finding["finding"],
              "/tarv/data/logs/debug: 1 waiting, 0 sent, 1 neither: b.gz (0600)");
  }
  EXPECT_EQ(missing, 13U);
}

TEST(PpctlDoctor, OneThingWrongIsStatusOne) {
  const FakeStore store;
  Child::Setup setup;
  setup.environment = {"PATH=/nonexistent"};
  const Ended ended = run_ppctl({"doctor", "--json", "--quiet"}, setup);
  EXPECT_EQ(ended.status, 1);
  EXPECT_EQ(findings(ended, "find").at(0)["level"], "wrong");
  EXPECT_EQ(findings(ended, "fuser").at(0)["level"], "wrong");
  for (const Json& finding : read_lines(ended.out)) {
    EXPECT_TRUE(finding["level"] == "warning" || finding["level"] == "wrong") << finding;
  }
}

TEST(PpctlDoctor, AHealthyDeviceIsStatusNought) {
  const FakeStore store;
  // The service runs: whether its queue could be made anew is not asked then.
  const MessageQueue queue("/log_consumer", 10, 8192);
  const Ended ended = Child({"/usr/bin/env", "-u", "SSL_CERT_FILE", "-u", "SSL_CERT_DIR",
                             ppctl_test::ppctl_command({})[0], "doctor"},
                            with_busybox_find())
                          .wait();
  EXPECT_EQ(ended.status, 0) << ended.out;
}

TEST(PpctlDoctor, IsOneLineAFinding) {
  const FakeStore store;
  const Ended ended = run_ppctl({"doctor"});
  std::istringstream lines(ended.out);
  std::size_t count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    EXPECT_TRUE(line.rfind("ok ", 0) == 0 || line.rfind("note ", 0) == 0 ||
                line.rfind("warning ", 0) == 0 || line.rfind("wrong ", 0) == 0)
        << line;
  }
  EXPECT_GE(count, 20U);
}
