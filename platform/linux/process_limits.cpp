#include "platform/process_limits.hpp"

#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>

#include "platform/linux/process_threads.hpp"

namespace qm {

void raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  (void)::setrlimit(RLIMIT_NOFILE, &limit);
}

// The C library would have eight arenas for each processor, and none gives back what another could use.
void boundHeap() {
  ::mallopt(M_ARENA_MAX, static_cast<int>(std::max<std::size_t>(2, usableProcessors())));
}

}  // namespace qm
