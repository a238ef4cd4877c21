#include "platform/activity.hpp"

#include <atomic>
#include <utility>

#include "platform/linux/activity_context.hpp"

namespace qm {
namespace {

thread_local ActivityContext current;
std::atomic<std::uint64_t> lastActivity{0};

}  // namespace

ActivityContext currentActivity() {
  return current;
}

ActivityScope::ActivityScope(const ActivityContext& activity) : previous_(current) {
  current = activity;
}

ActivityScope::~ActivityScope() {
  current = previous_;
}

void initiateActivity(const char* description, const Block<void()>& body) {
  const std::uint64_t id = lastActivity.fetch_add(1, std::memory_order_relaxed) + 1;
  const ActivityScope scope({.id = id, .parent = current.id, .description = description});
  body();
}

Block<void()> inCurrentActivity(Block<void()> work) {
  return [activity = current, work = std::move(work)] {
    const ActivityScope scope(activity);
    work();
  };
}

}  // namespace qm
