#include "platform/activity.hpp"

#include "platform/linux/activity_context.hpp"
#include "support/testing.hpp"

namespace {

TEST(Activities, NestEndWithTheirBodyAndAreEachThreadsOwn) {
  initiateActivity("outer", [] {
    const ActivityContext outer = currentActivity();
    EXPECT_NE(outer.id, 0U);
    initiateActivity("inner", [&] { EXPECT_EQ(currentActivity().parent, outer.id); });
    EXPECT_THROW(initiateActivity("thrower", [] { throw std::runtime_error("x"); }), std::runtime_error);
    EXPECT_EQ(currentActivity().id, outer.id);
    std::thread([] { EXPECT_EQ(currentActivity().id, 0U); }).join();
  });
  EXPECT_EQ(currentActivity().id, 0U);
}

}  // namespace
