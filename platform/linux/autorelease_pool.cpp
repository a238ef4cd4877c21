#include "platform/autorelease_pool.hpp"

namespace qm {

void autoreleasePool(const Block<void()>& body) {
  body();
}

}  // namespace qm
