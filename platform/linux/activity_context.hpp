// The current activity of a thread, for what carries work to other threads: capture it where the work is
// made, enter it where the work runs.
#pragma once

#include <cstdint>

namespace qm {

// A small plain value. The description is a string literal.
struct ActivityContext {
  std::uint64_t id = 0;      // unique in the process; 0: no activity
  std::uint64_t parent = 0;  // 0: the activity has none
  const char* description = nullptr;
};

// The activity the calling thread is in; id 0 when it is in none.
ActivityContext currentActivity();

// Puts the calling thread into the activity (or into none) while it lives; then the previous one holds again.
// To be destroyed on the thread that made it, the last one made first.
class ActivityScope {
 public:
  explicit ActivityScope(const ActivityContext& activity);
  ~ActivityScope();
  ActivityScope(const ActivityScope&) = delete;
  ActivityScope& operator=(const ActivityScope&) = delete;

 private:
  const ActivityContext previous_;
};

}  // namespace qm
