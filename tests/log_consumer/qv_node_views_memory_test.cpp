// What makeObj() does without memory. (Not at every single allocation: the parser's own destructor
// allocates, and ends the process when it cannot.)
#include <gtest/gtest.h>

#include <string>

#include "log_consumer/qv_json_obj_factory.h"
#include "tests/support/scarce_memory.h"

namespace {

TEST(QvJsonObjFactoryOutOfMemory, MakesNothingAndThrowsNothing) {
  const std::string json = R"({"rgw":{"aapState":"bound"}})";
  std::shared_ptr<QvJsonObj> view;
  bool ran_out = false;
  {
    const test_support::ScarceMemory none(0);
    view = QvJsonObjFactory::makeObj(json);
    ran_out = none.ran_out();
  }
  EXPECT_TRUE(ran_out);
  EXPECT_EQ(view, nullptr);
}

}  // namespace
