// A system that has run out: no processes, no descriptors, a log partition without room, without
// inodes, read-only. The program itself runs, with its pauses made shorter (system_faults.cpp).
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

#include "gtest/gtest.h"
#include "tests/faults/fault_trial.h"
#include "tests/support/files.h"

namespace {

namespace fs = std::filesystem;
using fault_test::Outcome;
using fault_test::World;

constexpr char kReport[] = "/tarv/data/logs/reports/r.gz";  // found by find
constexpr char kClp[] = "/tarv/data/logs/clp/c.gz";         // found by reading the directory

class ScarceSystem : public testing::Test {
 protected:
  void SetUp() override {
    world_.add(kReport);
    world_.add(kClp);
  }
  World world_;
};

// The shell's commands and fuser cannot run: what holds a file is not known, so none is sent.
TEST_F(ScarceSystem, WithoutProcessesNothingIsSentAndNothingEnds) {
  for (const int error : {EAGAIN, ENOMEM}) {
    const Outcome outcome = world_.run({"fork", 0, error});
    EXPECT_TRUE(outcome.failed);
    EXPECT_TRUE(outcome.ended);
    EXPECT_EQ(outcome.sent, 0);
    EXPECT_EQ(world_.server().reports().size(), 0U);
  }
  EXPECT_TRUE(world_.send_all());
}

TEST_F(ScarceSystem, WithFewDescriptorsFilesWaitForBetterTimes) {
#ifdef FAULTS_WHOLE
  constexpr int kStep = 1;
#else
  constexpr int kStep = 10;
#endif
  constexpr int kFewest = 3;  // standard input, output and error
  constexpr int kPlenty = 33;
  world_.seconds_in_silence = 8;
  int runs = 0, sent = 0, ended = 0;
  for (int descriptors = kFewest; descriptors <= kPlenty; descriptors += kStep) {
    SCOPED_TRACE(descriptors);
    const Outcome outcome = world_.run({"descriptors", descriptors, 0});
    ASSERT_FALSE(HasFailure());
    EXPECT_TRUE(outcome.failed);
    ++runs;
    ended += outcome.ended ? 1 : 0;
    sent += outcome.sent;
    world_.renew();
  }
  world_.seconds_in_silence = 0;
  EXPECT_TRUE(world_.send_all());
  std::cout << "figure few descriptors: " << runs << " runs with " << kFewest << " to " << kPlenty
            << " descriptors, " << ended << " passes ended by themselves, " << sent
            << " files sent in them\n";
}

// Every case has a mount namespace of its own, and with it a log partition of its own making.
class LogPartition : public testing::Test {
 protected:
  // Before anything starts a thread, as the kernel wants it.
  void SetUp() override {
    fs::create_directories(kPartition);
    if (!enter_namespace()) GTEST_SKIP() << "no mount namespace: " << std::strerror(errno);
  }

  // @param options  of tmpfs, e.g. "size=64k"
  bool mount_partition(const char* options) {
    return mount("tmpfs", kPartition, "tmpfs", 0, options) == 0;
  }
  static bool make_read_only(bool read_only) {
    return mount("tmpfs", kPartition, "tmpfs",
                 static_cast<unsigned long>(MS_REMOUNT) |
                     (read_only ? static_cast<unsigned long>(MS_RDONLY) : 0UL),
                 nullptr) == 0;
  }

  void seed() {
    world_ = std::make_unique<World>();
    world_->add(kReport);
    world_->add(kClp);
  }

  static void fill_up() {
    std::ofstream filler(std::string(kPartition) + "/filler", std::ios::binary);
    const std::string block(4096, 'x');
    while (filler << block << std::flush) {
    }
  }

  // The path of the archive that the last hour's log went into; empty: there is none.
  static std::string hours_archive() {
    for (const auto& entry : fs::directory_iterator(std::string(kPartition) + "/logconsumer")) {
      if (entry.path().extension() == ".gz") return entry.path();
    }
    return {};
  }

  static constexpr char kPartition[] = "/tarv/data/logs";
  std::unique_ptr<World> world_;

 private:
  static bool enter_namespace() {
    const std::string user = std::to_string(getuid()) + " " + std::to_string(getuid()) + " 1";
    const std::string group = std::to_string(getgid()) + " " + std::to_string(getgid()) + " 1";
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
    return put("/proc/self/setgroups", "deny") && put("/proc/self/uid_map", user) &&
           put("/proc/self/gid_map", group);
  }

  static bool put(const char* path, const std::string& text) {
    const int file = open(path, O_WRONLY | O_CLOEXEC);
    const bool written = write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(file);
    return written;
  }
};

TEST_F(LogPartition, WithoutRoomFilesAreSentAndMarkedAsEver) {
  ASSERT_TRUE(mount_partition("size=64k,mode=755")) << std::strerror(errno);
  seed();
  fill_up();
  EXPECT_TRUE(world_->send_all());
  EXPECT_EQ(fs::file_size(std::string(kPartition) + "/logconsumer/logconsumer.log"), 0U)
      << "the activity log found no room";
}

TEST_F(LogPartition, WithoutInodesFilesAreSentAndMarkedAsEver) {
  // The root, two folders with a file each: none is left for the activity log's folder.
  ASSERT_TRUE(mount_partition("nr_inodes=5,mode=755")) << std::strerror(errno);
  seed();
  EXPECT_TRUE(world_->send_all());
  EXPECT_FALSE(fs::exists(std::string(kPartition) + "/logconsumer"));
}

// There is room for the activity log, none for its archive, and the hour changes.
TEST_F(LogPartition, WithoutRoomTheHoursLogIsLostAndAnEmptyArchiveIsSent) {
  constexpr std::uintmax_t kPage = 4096;
  ASSERT_TRUE(mount_partition("size=64k,mode=755")) << std::strerror(errno);
  seed();
  fill_up();
  const fs::path filler = fs::path(kPartition) / "filler";
  fs::resize_file(filler, fs::file_size(filler) - kPage);
  world_->hour_changes = true;
  EXPECT_TRUE(world_->run({}).ended);
  world_->hour_changes = false;
  const std::string archive = hours_archive();
  ASSERT_FALSE(archive.empty());
  EXPECT_EQ(fs::file_size(archive), 0U);
  EXPECT_GT(fs::file_size(std::string(kPartition) + "/logconsumer/logconsumer.log"), 0U)
      << "the next one finds the room that the lost one had";
  for (int start = 0; start < 20 && test_support::file_mode(archive) == 0644; ++start)
    world_->run({});
  EXPECT_EQ(test_support::file_mode(archive), 0400);
  EXPECT_TRUE(world_->accepted("")) << "as it is";
  EXPECT_TRUE(world_->send_all());
}

// The mark cannot be set: the file is sent again with each start, never lost, never marked.
TEST_F(LogPartition, ReadOnlyFilesAreSentAgainUntilTheyCanBeMarked) {
  ASSERT_TRUE(mount_partition("mode=755")) << std::strerror(errno);
  seed();
  ASSERT_TRUE(make_read_only(true)) << std::strerror(errno);
  world_->may_repeat = true;
  for (int start = 0; start < 2; ++start) {
    const Outcome outcome = world_->run({});
    EXPECT_TRUE(outcome.ended);
    EXPECT_EQ(outcome.sent, 0);
  }
  EXPECT_GE(world_->server().reports().size(), 2U);
  ASSERT_TRUE(make_read_only(false)) << std::strerror(errno);
  EXPECT_TRUE(world_->send_all());
}

}  // namespace
