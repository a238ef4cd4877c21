#include "daemon/request_queue.hpp"

#include "platform/activity.hpp"
#include "platform/linux/activity_context.hpp"
#include "support/testing.hpp"

namespace {

constexpr RequestShare kShort{.userID = 501, .isOfLongFiles = false};
constexpr RequestShare kLong{.userID = 501, .isOfLongFiles = true};
constexpr RequestShare kOfAnother{.userID = 502, .isOfLongFiles = false};

class Requests : public ::testing::Test {
 protected:
  // Work that waits for the test's word.
  void hang(const RequestQueue& queue, const RequestShare& share) const {
    queue.async(share, [progress = progress_] {
      progress->begun.put("hung");
      progress->end.wait();
    });
  }
  void note(const RequestQueue& queue, const RequestShare& share, const char* name) const {
    queue.async(share, [progress = progress_, name] { progress->begun.put(name); });
  }
  void end() const { progress_->end.count_down(); }
  const Inbox<std::string>& begun() const { return progress_->begun; }

  const Queue queue_ = Queue::concurrent("com.quillmarsh.reputationhandlingqueue");

 private:
  struct Progress {
    Inbox<std::string> begun;
    std::latch end{1};
  };
  const std::shared_ptr<Progress> progress_ = std::make_shared<Progress>();
};

TEST_F(Requests, OfOneUserKeepToTheUsersPartWithLongAndShortFilesTogether) {
  const RequestQueue requests(queue_, 4);
  for (int round = 0; round < 4; ++round) {
    hang(requests, kShort);
    hang(requests, kLong);
  }
  begun().waitFor(4);
  note(requests, kOfAnother, "of another user");
  EXPECT_THAT(begun().waitFor(5), ::testing::ElementsAre("hung", "hung", "hung", "hung", "of another user"));
  end();
  begun().waitFor(9);
}

TEST_F(Requests, ThatWaitRunInTheirOrderAndInTheActivityTheyCameIn) {
  const RequestQueue requests(queue_, 2);
  initiateActivity("first", [&] { hang(requests, kShort); });
  Inbox<std::uint64_t> ranIn;
  std::vector<std::uint64_t> cameIn;
  for (int request = 0; request < 3; ++request) {
    initiateActivity("waiting", [&] {
      cameIn.push_back(currentActivity().id);
      requests.async(kShort, [&ranIn] { ranIn.put(currentActivity().id); });
    });
  }
  begun().waitForOne();
  end();
  EXPECT_EQ(ranIn.waitFor(3), cameIn);
}

}  // namespace
