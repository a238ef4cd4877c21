// Scans for callers with little time, and what they stand on: bounded work whose items may never come back,
// and the shares of processes.
#include "companions/file_scans.hpp"

#include "companions/wisp_error.hpp"
#include "support/testing.hpp"

namespace {

using Response = FileScans::Response;

TEST(BoundedWork, AnItemThatDoesNotComeBackLosesItsPlaceUnlessThereAreTooManySuch) {
  const BoundedWork::LostItems lost{std::chrono::milliseconds(1), 1};
  struct Progress {
    Inbox<int> begun;
    std::array<std::promise<void>, 4> mayEnd;
  };
  const auto progress = std::make_shared<Progress>();  // a lost item may still run when the test has ended
  auto& [begun, mayEnd] = *progress;
  const BoundedWork work(Queue::concurrent("test.work"), 1, 3, lost);
  const auto submitTo = [&progress](const BoundedWork& to, int number) {
    return to.submit([progress, number] {
      progress->begun.put(number);
      progress->mayEnd.at(static_cast<std::size_t>(number)).get_future().wait();
    });
  };
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(submitTo(work, i));
  EXPECT_EQ(begun.take(), 0);
  EXPECT_EQ(begun.take(), 1) << "the first is lost";
  EXPECT_TRUE(work.submit([progress] { progress->begun.put(3); }));
  // Meanwhile the second would be lost, too.
  const BoundedWork clock(Queue::concurrent("test.clock"), 1, 1, lost);
  EXPECT_TRUE(submitTo(clock, 3) && clock.submit([progress] { progress->begun.put(4); }));
  EXPECT_EQ(begun.waitFor(2), (std::vector<int>{3, 4}));
  begun.take(), begun.take();
  mayEnd[1].set_value();
  EXPECT_EQ(begun.take(), 2);
  for (const std::size_t i : {0u, 2u, 3u}) mayEnd.at(i).set_value();
  EXPECT_EQ(begun.take(), 3);
}

TEST(ProcessShares, AreOfAProcessWhateverItsConnectionsAndUntilItsTicketsAreBack) {
  ProcessShares shares(2);
  const AuditToken first{{0, 0, 0, 0, 0, 7, 0, 100}}, sameProcess{{1, 2, 3, 4, 5, 7, 6, 100}},
      sameID{{0, 0, 0, 0, 0, 7, 0, 101}};
  WorkShare::Ticket ticket = shares.of(first)->take();
  const WorkShare::Ticket another = shares.of(sameProcess)->take();
  EXPECT_TRUE(ticket && another);
  EXPECT_FALSE(shares.of(first)->take());
  EXPECT_TRUE(shares.of(sameID)->take());
  ticket = nullptr;
  EXPECT_TRUE(shares.of(first)->take());
}

// Each scan does what the test tells it to: 'w' says whether it is wanted, 'd' until when the rules may take,
// 'e' ends it.
class Scans : public testing::Test {
 protected:
  struct Person {
    std::atomic<bool> isWaiting = true;
    Inbox<std::int64_t> answers;  // error codes
  };

  void start() {
    scans_ = FileScans::create(Queue::concurrent("test.scans"), limits_,
                               [this](const FilePath& file, const WispAnswers::Scan& scan, ErrorPtr*) {
                                 begun_.put(file.path);
                                 while (const auto step = steps_.at(file.path).take()) {
                                   if (*step == 'e') break;
                                   if (*step == 'w') wanted_.put(scan.isWanted());
                                   if (*step == 'd') deadlines_.put(scan.deadline());
                                 }
                                 return std::make_shared<const QMRWispCloudScanResponseObjC>();
                               });
  }
  bool ask(const std::string& path, Person& person) {
    const auto answer = [&person](const Response& response, const ErrorPtr& error) {
      EXPECT_NE(response == nullptr, error == nullptr);
      person.answers.put(error == nullptr ? 0 : error->code());
    };
    return scans_->ask(FilePath{path},
                       {[&person] { return person.isWaiting.load(); }, kDeadline, answer, nullptr});
  }
  bool isWanted(const std::string& path) {
    steps_.at(path).put('w');
    return wanted_.take().value_or(false);
  }
  std::optional<FileScans::Clock::time_point> deadlineOf(const std::string& path) {
    steps_.at(path).put('d');
    return deadlines_.take();
  }

  const FileScans::Clock::time_point kDeadline = FileScans::Clock::now() + std::chrono::seconds(50);
  FileScans::Limits limits_;
  std::shared_ptr<FileScans> scans_;
  std::map<std::string, Inbox<char>> steps_ = [] {
    std::map<std::string, Inbox<char>> steps;
    for (const char* path : {"/a", "/b", "/c"}) steps[path];
    return steps;
  }();
  Inbox<std::string> begun_;
  Inbox<bool> wanted_;
  Inbox<FileScans::Clock::time_point> deadlines_;
};

TEST_F(Scans, OneGoesOnWithoutItsCallerAndWhoAsksMeanwhileIsAnsweredBehindIt) {
  limits_.goingOn = 1;
  start();
  Person first, second, other;
  EXPECT_TRUE(ask("/a", first) && ask("/b", other));
  begun_.waitFor(2);
  EXPECT_TRUE(isWanted("/a") && isWanted("/b"));
  first.isWaiting = other.isWaiting = false;
  EXPECT_TRUE(isWanted("/a")) << "for those who ask next";
  EXPECT_FALSE(isWanted("/b")) << "one does already";
  EXPECT_GT(deadlineOf("/a"), kDeadline + std::chrono::seconds(60));
  EXPECT_EQ(deadlineOf("/b"), kDeadline);
  EXPECT_TRUE(ask("/b", second));
  EXPECT_TRUE(isWanted("/b")) << "somebody waits for it again";
  steps_.at("/b").put('e');
  EXPECT_EQ(begun_.waitFor(3)[2], "/b") << "anew: the file may have changed";
  EXPECT_EQ(second.answers.size(), 0u);
  steps_.at("/b").put('e');
  EXPECT_EQ(second.answers.waitForOne(), 0);
  steps_.at("/a").put('e');
  first.answers.waitForOne();
}

TEST_F(Scans, OneThatIsLostDoesNotKeepAnotherFromGoingOn) {
  limits_.goingOn = 1;
  limits_.lost.after = std::chrono::seconds(0);
  start();
  Person first, second;
  EXPECT_TRUE(ask("/a", first) && ask("/b", second));
  begun_.waitFor(2);
  first.isWaiting = second.isWaiting = false;
  EXPECT_TRUE(isWanted("/a") && isWanted("/b"));
  for (const char* path : {"/a", "/b"}) steps_.at(path).put('e');
  first.answers.waitForOne();
  second.answers.waitForOne();
}

TEST_F(Scans, WhatNobodyWaitsForIsNotBegunAndNothingTakesLongerThanItsTime) {
  limits_.running = 1;
  limits_.waiting = 1;
  limits_.time = std::chrono::seconds(0);
  start();
  Person first, second, third, fourth;
  EXPECT_TRUE(ask("/a", first) && ask("/b", second));
  EXPECT_FALSE(ask("/c", fourth)) << "no room";
  begun_.waitForOne();
  EXPECT_FALSE(isWanted("/a"));
  EXPECT_TRUE(ask("/a", third));
  second.isWaiting = false;
  steps_.at("/a").put('e');
  EXPECT_EQ(first.answers.waitForOne(), 0);
  EXPECT_EQ(third.answers.waitForOne(), static_cast<std::int64_t>(WispError::busy)) << "no room behind it";
  EXPECT_TRUE(eventually([&] { return ask("/c", fourth); }));
  EXPECT_EQ(begun_.waitFor(2)[1], "/c");
  steps_.at("/c").put('e');
  EXPECT_EQ(fourth.answers.waitForOne(), 0);
  EXPECT_EQ(second.answers.size(), 0u);
}

}  // namespace
