#include "platform/linux/path_watcher.hpp"

#include <pthread.h>

#include "support/testing.hpp"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// While it lives the process gets no further thread: there is no room for a stack.
class NoThreads {
 public:
  NoThreads() {
    ::pthread_getattr_default_np(&before_);
    pthread_attr_t huge;
    ::pthread_getattr_default_np(&huge);
    ::pthread_attr_setstacksize(&huge, std::size_t{1} << 47);
    ::pthread_setattr_default_np(&huge);
    ::pthread_attr_destroy(&huge);
  }
  ~NoThreads() {
    ::pthread_setattr_default_np(&before_);
    ::pthread_attr_destroy(&before_);
  }

 private:
  pthread_attr_t before_{};
};

// Follows the content of a file through a watcher, as the watcher's user does.
class Follower {
 public:
  explicit Follower(const std::string& path)
      : watcher_(path, 10ms, [this, path](bool) {
          seen_.put(contentOf(path));
          return false;
        }) {}

  // Waits until the file was seen with the content, which is empty when it is not there.
  bool sees(const std::string& content) {
    std::optional<std::string> seen = seen_.take();
    while (seen && seen != content) seen = seen_.take();
    return seen == content;
  }

 private:
  Inbox<std::string> seen_;
  PathWatcher watcher_;
};

TEST(PathWatcher, CallsNobodyWhenThereIsNoThreadToBeHad) {
  sigset_t blocked;
  {
    const NoThreads none;
    const PathWatcher watcher("/nowhere", 1h, [](bool) { return ADD_FAILURE(), false; });
  }
  ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  EXPECT_EQ(::sigismember(&blocked, SIGTERM), 0);
}

TEST(PathWatcher, SeesAFileCreatedReplacedRemovedAndChangedBehindALink) {
  const ScratchFolder scratch;
  Follower follower(scratch.path("file"));
  EXPECT_TRUE(follower.sees(""));
  scratch.write("file", "one");
  EXPECT_TRUE(follower.sees("one"));
  fs::rename(scratch.write("new", "three"), scratch.path("file"));
  EXPECT_TRUE(follower.sees("three"));
  fs::remove(scratch.path("file"));
  EXPECT_TRUE(follower.sees(""));
  fs::create_symlink(scratch.write("target/file", "four"), scratch.path("file"));
  EXPECT_TRUE(follower.sees("four"));
  scratch.write("target/file", "five");
  EXPECT_TRUE(follower.sees("five"));
}

TEST(PathWatcher, SeesFoldersOnTheWayComeMoveAndGo) {
  const ScratchFolder scratch;
  Follower follower(scratch.path("a/b/c/file"));
  scratch.write("a/b/c/file", "one");
  EXPECT_TRUE(follower.sees("one"));
  fs::rename(scratch.path("a/b"), scratch.path("a/elsewhere"));
  EXPECT_TRUE(follower.sees(""));
  scratch.write("prepared/b/c/file", "two");
  fs::rename(scratch.path("prepared/b"), scratch.path("a/b"));
  EXPECT_TRUE(follower.sees("two"));
  fs::remove_all(scratch.path("a"));
  EXPECT_TRUE(follower.sees(""));
  scratch.write("a/b/c/file", "three");
  EXPECT_TRUE(follower.sees("three"));
}

}  // namespace
