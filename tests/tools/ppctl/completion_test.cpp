// The bash completion, completed by bash itself.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "tests/support/files.h"
#include "tests/support/message_queue.h"
#include "tests/tools/ppctl/child.h"

using ppctl_test::Child;
using ppctl_test::Ended;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

using Words = std::vector<std::string>;

// What bash offers for the last of the words, in order.
Words complete(const Words& words, const std::string& folder = "/") {
  const std::string program = ppctl_test::ppctl_command({})[0];
  std::string script = "cd " + folder + "; source " COMPLETION_FILE "; COMP_WORDS=(" + program;
  for (const std::string& word : words)
    script += " '" + word + "'";
  script += "); COMP_CWORD=" + std::to_string(words.size()) +
            "; _ppctl; [ ${#COMPREPLY[@]} = 0 ] || printf '%s\\n' \"${COMPREPLY[@]}\"";
  const Ended ended = Child({"/bin/bash", "-c", script}).wait();
  EXPECT_EQ(ended.err, "");
  EXPECT_EQ(ended.status, 0);
  Words offered;
  std::istringstream lines(ended.out);
  for (std::string line; std::getline(lines, line);)
    offered.push_back(line);
  std::sort(offered.begin(), offered.end());
  return offered;
}

}  // namespace

TEST(BashCompletion, IsRegisteredForTheProgram) {
  const Ended ended =
      Child({"/bin/bash", "-c", "source " COMPLETION_FILE "; complete -p ppctl"}).wait();
  EXPECT_EQ(ended.out, "complete -F _ppctl ppctl\n");
}

TEST(BashCompletion, OffersEveryVerb) {
  EXPECT_THAT(complete({""}),
              ElementsAre("clear", "delete", "doctor", "get", "publish", "queues", "record",
                          "replay", "save", "send", "set", "sync", "watch"));
  EXPECT_THAT(complete({"re"}), ElementsAre("record", "replay"));
}

TEST(BashCompletion, OffersAVerbBehindOptionsAndTheirValues) {
  EXPECT_THAT(complete({"--json", "-t", "3", "--suffix", "x", "wa"}), ElementsAre("watch"));
}

TEST(BashCompletion, KnowsTheValuesOfOptionsHoweverTheyAreWritten) {
  EXPECT_THAT(complete({"--timeout", "=", "5", "wa"}), ElementsAre("watch"));
  EXPECT_THAT(complete({"--timeout=5", "wa"}), ElementsAre("watch"));
  EXPECT_THAT(complete({"-jt", "5", "wa"}), ElementsAre("watch"));
  EXPECT_THAT(complete({"-jt5", "wa"}), ElementsAre("watch"));
  EXPECT_THAT(complete({"-jq", "wa"}), ElementsAre("watch"));
  EXPECT_THAT(complete({"--timeout", "=", ""}), IsEmpty());
  EXPECT_THAT(complete({"-jt", ""}), IsEmpty());
}

TEST(BashCompletion, OffersTheOptionsOfTheVerb) {
  EXPECT_THAT(complete({"replay", "--s"}), ElementsAre("--speed", "--suffix"));
  EXPECT_THAT(complete({"--s"}), ElementsAre("--suffix"));
  EXPECT_THAT(complete({"watch", "/rgw", "-"}), Contains("-C"));
  EXPECT_THAT(complete({"get", "-"}), Not(Contains("-C")));
}

TEST(BashCompletion, OffersNothingForAnOptionsValue) {
  EXPECT_THAT(complete({"get", "--timeout", ""}), IsEmpty());
  EXPECT_THAT(complete({"watch", "-C", ""}), IsEmpty());
}

TEST(BashCompletion, OffersNodes) {
  for (const char* const verb : {"get", "set", "clear", "delete", "watch"}) {
    EXPECT_THAT(complete({verb, "/rgw"}), ElementsAre("/rgw", "/rgw/aapState", "/rgw/configSec"));
  }
  EXPECT_THAT(complete({"get", "/rgw", ""}), IsEmpty());
  EXPECT_THAT(complete({"watch", "/rgw", "/i"}), ElementsAre("/interfaces"));
}

TEST(BashCompletion, OffersTheStatesOfTheGateway) {
  EXPECT_THAT(complete({"set", "/rgw/aapState", "b"}), ElementsAre("binding", "bound"));
  EXPECT_THAT(complete({"set", "/rgw", "b"}), IsEmpty());
}

TEST(BashCompletion, OffersFunctions) {
  EXPECT_THAT(complete({"send", "un"}), ElementsAre("unregister", "unsubscribe"));
}

TEST(BashCompletion, OffersFiles) {
  const test_support::TempDir folder;
  test_support::write_file(folder / "session.json", "");
  for (const char* const verb : {"publish", "replay", "record"}) {
    EXPECT_THAT(complete({verb, "se"}, folder.path()), ElementsAre("session.json"));
  }
  test_support::write_file(folder / "two words.json", "");
  test_support::write_file(folder / "two*", "");
  EXPECT_THAT(complete({"publish", "tw"}, folder.path()), ElementsAre("two words.json", "two*"));
  EXPECT_THAT(complete({"record", "session.json", "/s"}, folder.path()),
              ElementsAre("/serverAssigned", "/system", "/system/clock"));
}

TEST(BashCompletion, OffersQueues) {
  EXPECT_THAT(complete({"queues", ""}), IsEmpty());
  const test_support::MessageQueue one("/one", 1, 100);
  const test_support::MessageQueue other("/other", 1, 100);
  EXPECT_THAT(complete({"queues", ""}), ElementsAre("/one", "/other"));
  EXPECT_THAT(complete({"queues", "/on"}), ElementsAre("/one"));
}
