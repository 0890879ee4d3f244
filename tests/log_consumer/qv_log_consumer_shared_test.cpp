// The shared record and the table of log kinds.
#include "log_consumer/qv_log_consumer_shared.h"

#include <tuple>

#include "gtest/gtest.h"

namespace {

void expectDefaults() {
  const logConsumerSharedStruct& shared = logConsumerShared;
  EXPECT_TRUE(shared.alwaysBypassRandomDelay);
  EXPECT_TRUE(shared.skipPerFileDelay);
  EXPECT_EQ(shared.dataUploadServerAddr, "");
  EXPECT_EQ(shared.dataUploadServerPort, -1);
  EXPECT_EQ(shared.relayServerAddr, "");
  EXPECT_EQ(shared.relayServerPort, -1);
  EXPECT_FALSE(shared.dataUploadConnectDone);
  EXPECT_FALSE(shared.relayServerConnectDone);
  EXPECT_FALSE(shared.wifiAssociated);
  EXPECT_EQ(shared.aapStateStr, "unregistered");
  EXPECT_EQ(shared.sysId, "NUVSerialNumber");
  EXPECT_EQ(shared.nuvToken, "");
  EXPECT_FALSE(shared.manualUpdate);
  EXPECT_EQ(shared.sleepSeconds, 5);
  EXPECT_FALSE(shared.setDelayMinutes);
  EXPECT_FALSE(shared.resetLogConsumer);
  EXPECT_TRUE(shared.initialLogSending);
  EXPECT_EQ(shared.offset, 0);
  EXPECT_EQ(shared.dstOffset, 0);
  EXPECT_FALSE(shared.enableDst);
  EXPECT_FALSE(shared.loggingEnabled);
  EXPECT_EQ(shared.lastActivityTime.tv_sec, 0);
  EXPECT_EQ(shared.lastActivityTime.tv_nsec, 0);
  EXPECT_FALSE(shared.inactivityExit);
}

TEST(SharedRecord, StartsWithTheDefaults) {
  expectDefaults();
}

TEST(SharedRecord, StoringTheDefaultsResetsEveryField) {
  logConsumerSharedStruct& shared = logConsumerShared;
  shared.alwaysBypassRandomDelay = shared.skipPerFileDelay = shared.initialLogSending = false;
  shared.dataUploadServerAddr = shared.relayServerAddr = shared.aapStateStr = "x";
  shared.sysId = shared.nuvToken = "x";
  shared.dataUploadServerPort = shared.relayServerPort = shared.sleepSeconds = 9;
  shared.offset = shared.dstOffset = 9;
  shared.dataUploadConnectDone = shared.relayServerConnectDone = shared.wifiAssociated = true;
  shared.manualUpdate = shared.setDelayMinutes = shared.resetLogConsumer = true;
  shared.enableDst = shared.loggingEnabled = shared.inactivityExit = true;
  shared.lastActivityTime = {1, 2};
  storeSharedDefaults();
  expectDefaults();
}

TEST(SharedRecord, FieldsAreCopiedUnderTheLock) {
  shared_set(&logConsumerSharedStruct::sysId, "AB12345678");
  EXPECT_EQ(shared_get(&logConsumerSharedStruct::sysId), "AB12345678");
  EXPECT_TRUE(logConsumerShared.logsMutex.try_lock()) << "the lock is released again";
  logConsumerShared.logsMutex.unlock();
  storeSharedDefaults();
}

TEST(LogTypeTable, HasAllFifteenKindsInOrder) {
  using Row = std::tuple<std::string, int, int, bool, bool, std::string>;
  const std::vector<Row> expected = {
      {"/tarv/data/logs/reports", 9, 1, true, true, "perf"},
      {"/tarv/data/logs/measurements", 8, 0, true, true, "measmin"},
      {"/tarv/data/logs/history/installation", 10, 1, false, true, "ireport"},
      {"/tarv/data/logs/clp", 11, 0, false, true, "clp"},
      {R"(\nuv\logs\test\)", 2, 0, false, true, "Test"},
      {"/tarv/data/logs/debug", 0, 0, false, true, "Debug"},
      {"/tarv/data/logs/tlink", 1, 0, false, true, "TLink"},
      {"/tarv/data/logs/UI", 3, 0, false, true, "UI"},
      {"/tarv/data/logs/demand", 4, 0, false, true, "Demand"},
      {"/tarv/data/logs/tcomp", 5, 0, false, true, "TComp"},
      {"/tarv/data/logs/wg", 6, 0, false, true, "lg"},
      {"/tarv/data/logs/rg", 7, 0, false, true, "rg"},
      {"/tarv/data/logs/ppstat", 12, 0, false, true, "pushpull"},
      {"/tarv/data/logs/diagnostics", 13, 0, true, true, "diagnostics"},
      {"/tarv/data/logs/logconsumer", 14, 0, false, true, "logconsumer"},
  };
  std::vector<Row> actual;
  for (const logConsumerType& kind : buildLogTypeTable()) {
    actual.emplace_back(kind.filepath, kind.filetype, kind.server, kind.useLogFinder,
                        kind.useRandomDelay, uploadName(kind.filetype));
    EXPECT_EQ(kind.delayMinutes, 0);
  }
  EXPECT_EQ(actual, expected);
}

TEST(LogTypeTable, TypesOutsideTheEnumerationHaveNoUploadName) {
  EXPECT_EQ(uploadName(static_cast<logFileTypes>(15)), "");
  EXPECT_EQ(uploadName(static_cast<logFileTypes>(-1)), "");
}

TEST(LogTypeTable, EnumerationsAre32BitsWide) {
  EXPECT_EQ(sizeof(logFileTypes), 4U);
  EXPECT_EQ(sizeof(servers), 4U);
  EXPECT_EQ(sizeof(logConsumerType::delayMinutes), 2U);
}

}  // namespace
