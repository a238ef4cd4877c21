// Notifications between the processes of an installation in the build folder. All cases share its run folder.
// The program is also the other process: "notify_test
// post|post-as-nobody|observe|observe-without-descriptors".
#include "platform/notify.hpp"

#include <sys/resource.h>

#include <iostream>

#include "platform/linux/event_loop.hpp"
#include "platform/linux/run_folder.hpp"
#include "platform/linux/system_root.hpp"
#include "platform/system_log.hpp"
#include "support/child_process.hpp"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr const char* kName = "com.quillmarsh.test.updated";
const std::string kFolder = runFolder() + "/notifications";
const std::string kFile = kFolder + "/" + kName;

std::atomic<int> posts = 0;  // begun

NotifyStatus post() {
  ++posts;
  return notifyPost(kName);
}

// A registration on a serial queue of its own.
class Observer {
 public:
  explicit Observer(const char* name = kName) {
    EXPECT_EQ(notifyRegisterDispatch(name, &token_, queue_, [this](int token) { delivered(token); }),
              NotifyStatus::ok);
  }
  ~Observer() {
    notifyCancel(token_);
    settle();
  }

  int token() const { return token_; }
  const Queue& queue() const { return queue_; }
  // Returns how many deliveries there were when those that were queued have run.
  int settle() const {
    queue_.sync([] {});
    return deliveries_;
  }
  // Waits for a delivery that began after the last post had begun.
  bool isUpToDate() {
    while (const std::optional<int> seen = seen_.take())
      if (*seen == posts) return true;
    return false;
  }

 private:
  void delivered(int token) {
    EXPECT_EQ(token, token_);
    ++deliveries_;
    seen_.put(posts);
  }

  const Queue queue_ = Queue::serial("observer");
  int token_ = kNotifyTokenInvalid;
  Inbox<int> seen_;  // at each delivery, the posts that had begun
  std::atomic<int> deliveries_ = 0;
};

// While it lives, the queue is busy with it; without one the event loop.
class HoldUp {
 public:
  explicit HoldUp(const Queue& queue = {}) {
    const auto begun = std::make_shared<std::promise<void>>();
    const Block<void()> work = [begun, end = end_.get_future().share()] {
      begun->set_value();
      end.wait();
    };
    queue ? queue.async(work) : void(EventLoop::shared().runAfter(0s, work));
    begun->get_future().wait();
  }
  ~HoldUp() { end_.set_value(); }

 private:
  std::promise<void> end_;
};

// What was posted before has been seen: something that was posted later has.
void passEvents() {
  notifyPost("com.quillmarsh.test.marker");
  Observer marker("com.quillmarsh.test.marker");
  notifyPost("com.quillmarsh.test.marker");
  EXPECT_TRUE(marker.isUpToDate());
}

TEST(Notify, ReachesEveryRegistrationInEveryProcess) {
  fs::remove_all(runFolder());
  EXPECT_EQ(post(), NotifyStatus::ok);
  EXPECT_EQ(fs::status(kFile).permissions(), fs::perms(0644));
  Observer first;
  Observer other("self.test");
  ChildProcess process({ownProgramPath(), "observe"});
  EXPECT_EQ(process.readLine(), "status 0");
  passEvents();
  EXPECT_EQ(first.settle(), 0) << "of a post before the registration";
  std::optional<Observer> second;
  {
    const HoldUp loop;
    EXPECT_EQ(post(), NotifyStatus::ok);
    second.emplace();
  }
  EXPECT_TRUE(first.isUpToDate());
  EXPECT_EQ(process.readLine(), "delivered");
  passEvents();
  EXPECT_EQ(second->settle(), 0) << "of a post that others are told of after the registration";
  EXPECT_TRUE(first.token() >= 0 && second->token() >= 0 && first.token() != second->token());

  ++posts;
  EXPECT_EQ(runCommand({ownProgramPath(), "post"}).output, "status 0\n");
  EXPECT_TRUE(first.isUpToDate() && second->isUpToDate());
  EXPECT_EQ(process.readLine(), "delivered");
  EXPECT_EQ(other.settle(), 0);
  EXPECT_EQ(notifyPost("self.test"), NotifyStatus::ok);
  EXPECT_TRUE(other.isUpToDate());
}

TEST(Notify, CoalescesWhatWaitsAndSuppressesWhatIsCancelled) {
  Observer observer;
  Observer cancelled;
  {
    const HoldUp one(observer.queue());
    const HoldUp two(cancelled.queue());
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(post(), NotifyStatus::ok);
    passEvents();  // the deliveries are queued
    EXPECT_EQ(notifyCancel(cancelled.token()), NotifyStatus::ok);
    EXPECT_EQ(notifyCancel(cancelled.token()), NotifyStatus::invalidToken);
  }
  EXPECT_TRUE(observer.isUpToDate());
  EXPECT_EQ(observer.settle(), 1);
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(post(), NotifyStatus::ok);
  EXPECT_TRUE(observer.isUpToDate());
  EXPECT_EQ(cancelled.settle(), 0);
}

TEST(Notify, AHandlerMayCancelItselfRegisterAndPost) {
  std::promise<int> again;
  const Queue queue = Queue::serial("handlers");
  int token = kNotifyTokenInvalid;
  notifyRegisterDispatch(kName, &token, queue, [&](int own) {
    EXPECT_EQ(notifyCancel(own), NotifyStatus::ok);
    int next = kNotifyTokenInvalid;
    notifyRegisterDispatch(kName, &next, queue, [&](int delivered) { again.set_value(delivered); });
    EXPECT_EQ(post(), NotifyStatus::ok);
  });
  post();
  const int next = again.get_future().get();
  EXPECT_NE(next, token);
  EXPECT_EQ(notifyCancel(next), NotifyStatus::ok);
  queue.sync([] {});
}

TEST(Notify, NoPostIsLostWithFilesFoldersOrEvents) {
  const std::string aside = runFolder() + ".old";
  const std::pair<const char*, std::function<void()>> cases[] = {
      {"posted and removed",
       [] {
         post();
         fs::remove(kFile);
       }},
      {"folders removed",
       [] {
         post();
         fs::remove_all(fs::path(runFolder()).parent_path());
       }},
      {"folders made", [] { post(); }},
      {"folder made anew",
       [] {
         fs::remove_all(kFolder);
         post();
       }},
      {"run folder moved aside and back",
       [&] {
         fs::rename(runFolder(), aside);
         post();
         fs::remove_all(runFolder());
         fs::rename(aside, runFolder());
       }},
      {"too many events: equal ones in a row would count as one",
       [] {
         for (int i = 0; i < 20'000; ++i) notifyPost(i % 2 == 0 ? "com.quillmarsh.a" : "com.quillmarsh.b");
         post();
       }},
  };
  Observer observer;
  for (const auto& [what, action] : cases) {
    {
      const HoldUp loop;
      action();
    }
    EXPECT_TRUE(observer.isUpToDate()) << what;
    passEvents();
  }
  for (int round = 1; round <= 200; ++round) {
    std::thread remover([&] {
      std::error_code ignored;
      fs::remove_all(round % 2 == 0 ? runFolder() : kFolder, ignored);
    });
    EXPECT_EQ(post(), NotifyStatus::ok);
    remover.join();
    ASSERT_TRUE(observer.isUpToDate()) << round;
  }
}

TEST(Notify, SaysWhatItCannotDo) {
  int token = 7;
  for (const char* name : {"", ".hidden", "a/b", "\xff"}) {
    EXPECT_EQ(notifyPost(name), NotifyStatus::invalidName) << name;
    EXPECT_EQ(notifyRegisterDispatch(name, &token, Queue::global(), [](int) {}), NotifyStatus::invalidName);
    EXPECT_EQ(token, kNotifyTokenInvalid);
  }
  EXPECT_EQ(notifyRegisterDispatch(kName, &token, Queue(), [](int) {}), NotifyStatus::nullInput);
  post();
  fs::permissions(kFile, fs::perms(0444));
  EXPECT_THAT(runCommand({ownProgramPath(), "post-as-nobody"}).output,
              testing::EndsWith("Permission denied\nstatus 7\n"));
#if !defined(__SANITIZE_ADDRESS__)  // its checks need descriptors
  EXPECT_THAT(runCommand({ownProgramPath(), "observe-without-descriptors"}).output,
              testing::EndsWith("Too many open files\nstatus 1000000\n"));
#endif
}

int runAsOtherProcess(const std::string& command) {
  installSystemLog();
  EventLoop::shared();
  const rlimit none{.rlim_cur = 0, .rlim_max = 0};
  if (command == "observe-without-descriptors") ::setrlimit(RLIMIT_NOFILE, &none);
  if (command == "post-as-nobody" && ::geteuid() == 0 && ::setresuid(65534, 65534, 65534) != 0) return 2;
  int token = kNotifyTokenInvalid;
  const NotifyStatus status = command.starts_with("post")
                                  ? notifyPost(kName)
                                  : notifyRegisterDispatch(kName, &token, Queue::serial("other"), [](int) {
                                      std::cout << "delivered" << std::endl;
                                    });
  std::cout << "status " << static_cast<std::uint32_t>(status) << std::endl;
  if (command.starts_with("observe")) std::cin.get();  // until its end
  return 0;
}

}  // namespace

int main(int count, char** arguments) {
  if (count == 2 && arguments[1][0] != '-') return runAsOtherProcess(arguments[1]);
  testing::InitGoogleTest(&count, arguments);
  return RUN_ALL_TESTS();
}
