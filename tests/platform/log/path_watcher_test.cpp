#include "platform/linux/path_watcher.hpp"

#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>

#include "support/scratch_folder.hpp"

namespace qm {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// Follows the content of a file through a watcher, as the watcher's user does.
class Follower {
 public:
  explicit Follower(const std::string& path) : path_(path) {
    watcher_.emplace(path, 10ms, [this](bool) {
      look();
      return false;
    });
  }

  // Waits until the file was seen with the content; "(none)" when it is not there.
  bool sees(const std::string& content) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 30s, [&] { return seen_ == content; });
  }

 private:
  void look() {
    std::ifstream file(path_);
    std::string content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const std::lock_guard lock(mutex_);
    seen_ = file.is_open() ? content : "(none)";
    changed_.notify_all();
  }

  const std::string path_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string seen_;
  std::optional<PathWatcher> watcher_;
};

TEST(PathWatcher, SeesAFileCreatedReplacedRemovedAndChangedBehindALink) {
  const test::ScratchFolder scratch;
  Follower follower(scratch.path("file"));
  EXPECT_TRUE(follower.sees("(none)"));
  scratch.write("file", "one");
  EXPECT_TRUE(follower.sees("one"));
  fs::rename(scratch.write("new", "three"), scratch.path("file"));
  EXPECT_TRUE(follower.sees("three"));
  fs::remove(scratch.path("file"));
  EXPECT_TRUE(follower.sees("(none)"));
  fs::create_symlink(scratch.write("target/file", "four"), scratch.path("file"));
  EXPECT_TRUE(follower.sees("four"));
  scratch.write("target/file", "five");
  EXPECT_TRUE(follower.sees("five"));
}

TEST(PathWatcher, SeesFoldersOnTheWayComeMoveAndGo) {
  const test::ScratchFolder scratch;
  Follower follower(scratch.path("a/b/c/file"));
  scratch.write("a/b/c/file", "one");
  EXPECT_TRUE(follower.sees("one"));
  fs::rename(scratch.path("a/b"), scratch.path("a/elsewhere"));
  EXPECT_TRUE(follower.sees("(none)"));
  scratch.write("prepared/b/c/file", "two");
  fs::rename(scratch.path("prepared/b"), scratch.path("a/b"));
  EXPECT_TRUE(follower.sees("two"));
  fs::remove_all(scratch.path("a"));
  EXPECT_TRUE(follower.sees("(none)"));
  scratch.write("a/b/c/file", "three");
  EXPECT_TRUE(follower.sees("three"));
}

}  // namespace
}  // namespace qm
