#include "tools/lctimeline/event.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "log_consumer/qv_log_consumer_shared.h"
#include "tools/lctimeline/timeline.h"

using lctimeline::interpret;
using lctimeline::match_format;
using lctimeline::Server;
using lctimeline::What;
using testing::ElementsAre;
using testing::Optional;

namespace {

std::string sources_of_the_service() {
  std::string all;
  for (const char* folder : {"log_consumer", "os"}) {
    for (const auto& entry :
         std::filesystem::recursive_directory_iterator(std::string(SOURCE_TREE "/") + folder)) {
      if (entry.path().extension() != ".cpp") continue;
      std::ostringstream text;
      text << std::ifstream(entry.path()).rdbuf();
      all += text.str();
    }
  }
  return all;
}

}  // namespace

TEST(Event, EveryFormatItKnowsIsOneOfTheServices) {
  const std::string sources = sources_of_the_service();
  ASSERT_FALSE(sources.empty());
  for (const std::string& format : lctimeline::known_formats()) {
    EXPECT_NE(std::string::npos, sources.find("\"" + format)) << format;
  }
}

TEST(Event, TakesTheFieldsOutOfAText) {
  EXPECT_THAT(match_format("Send %s failed. Sleeping %d seconds.",
                           "Send /a/b.gz failed. Sleeping 10 seconds."),
              Optional(ElementsAre("/a/b.gz", "10")));
  EXPECT_THAT(match_format("Connecting to %s:%d", "Connecting to ::1:443"),
              Optional(ElementsAre("::1", "443")));
  EXPECT_THAT(match_format("Exiting socket thread", "Exiting socket thread"),
              Optional(ElementsAre()));
}

TEST(Event, AFileNameMayLookLikeTheRestOfTheMessage) {
  EXPECT_THAT(match_format("Send %s failed. Sleeping %d seconds.",
                           "Send a failed. Sleeping 1 seconds. failed. Sleeping 10 seconds."),
              Optional(ElementsAre("a failed. Sleeping 1 seconds.", "10")));
  EXPECT_THAT(match_format("Sending %s went okay", "Sending  went okay went okay"),
              Optional(ElementsAre(" went okay")));
}

TEST(Event, RefusesWhatAnotherFormatPrinted) {
  EXPECT_EQ(std::nullopt, match_format("Sending %s went okay", "Sending x went"));
  EXPECT_EQ(std::nullopt, match_format("Sleeping %d seconds", "Sleeping few seconds"));
  EXPECT_EQ(std::nullopt, match_format("Send error", "Send errors"));
  EXPECT_EQ(std::nullopt, match_format("Send error", "Send"));
  EXPECT_EQ(std::nullopt, match_format("a%d", "a"));
}

TEST(Event, SaysWhatHappenedAndOnWhichConnection) {
  EXPECT_EQ(What::kSent, interpret("Sending /x.gz went okay").what);
  EXPECT_EQ(What::kOther, interpret("Logging header").what);
  EXPECT_EQ(What::kOther, interpret("").what);
  const auto event = interpret("Relay server connection closed");
  EXPECT_EQ(What::kClosed, event.what);
  EXPECT_EQ(Server::kRelay, event.server);
}

TEST(Event, ItsKindsAreTheServices) {
  const std::vector<logConsumerType> table = buildLogTypeTable();
  ASSERT_EQ(lctimeline::kKindCount, table.size());
  for (std::size_t row = 0; row < table.size(); ++row) {
    const lctimeline::Kind& kind = lctimeline::kinds().at(row);
    EXPECT_EQ(uploadName(table[row].filetype), kind.name);
    EXPECT_EQ(table[row].filetype, kind.type);
    EXPECT_EQ(table[row].filepath, kind.directory);
    EXPECT_EQ(table[row].server == kRelaySrv, kind.server == Server::kRelay) << kind.name;
  }
}
