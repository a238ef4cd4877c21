#include "platform/autorelease_pool.hpp"

namespace qm {

void autoreleasePool(const Block<void()>& body) {
  @autoreleasepool {
    body();
  }
}

}  // namespace qm
