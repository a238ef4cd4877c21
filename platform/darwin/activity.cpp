#include "platform/activity.hpp"

#include <Block.h>
#include <dispatch/dispatch.h>
#include <os/activity.h>

#include <exception>
#include <memory>

namespace qm {
namespace {

struct Call {
  const Block<void()>& body;
  std::exception_ptr thrown;
};

// Nothing may be thrown through the system's frames.
void run(void* context) {
  auto& call = *static_cast<Call*>(context);
  try {
    call.body();
  } catch (...) {
    call.thrown = std::current_exception();
  }
}

}  // namespace

// The function under the macro os_activity_initiate_f, which takes a description only where it stands as a
// literal.
void initiateActivity(const char* description, const Block<void()>& body) {
  Call call{.body = body, .thrown = nullptr};
  _os_activity_initiate_f(&__dso_handle, description, OS_ACTIVITY_FLAG_DEFAULT, &call, run);
  if (call.thrown) std::rethrow_exception(call.thrown);
}

Block<void()> inCurrentActivity(Block<void()> work) {
  const dispatch_block_t block = dispatch_block_create(DISPATCH_BLOCK_ASSIGN_CURRENT, ^{
    work();
  });
  const std::shared_ptr<void> held(static_cast<void*>(block), [](void* its) { Block_release(its); });
  return [block, held] { block(); };
}

}  // namespace qm
