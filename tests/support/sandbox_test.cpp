// lab/sandbox: what tests and lab rely on.
#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>
#include <unistd.h>

#include "gtest/gtest.h"

namespace {

TEST(Sandbox, StartsWithoutTheDevicesFolders) {
  ASSERT_EQ(mkdir("/tarv/data", 0755), 0) << "an own, empty, writable /tarv";
  EXPECT_NE(access("/var/tmp/logfinder.tmp", F_OK), 0);
}

TEST(Sandbox, QueuesAreItsOwnAndMayBeLarge) {
  struct mq_attr attributes = {};
  attributes.mq_maxmsg = 12;
  attributes.mq_msgsize = 12000;
  const mqd_t queue = mq_open("/log_consumer", O_RDWR | O_CREAT | O_EXCL, 0660, &attributes);
  if (queue == -1 && errno == EINVAL) GTEST_SKIP() << "this kernel keeps its queue limits";
  EXPECT_NE(queue, -1);
  EXPECT_EQ(mq_close(queue), 0);
}

}  // namespace
