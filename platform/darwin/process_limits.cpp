#include "platform/process_limits.hpp"

#include <sys/resource.h>
#include <sys/syslimits.h>

#include <algorithm>

namespace qm {

void raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
  // The system refuses more than OPEN_MAX, also where the hard limit is "no limit" (setrlimit(2)). What
  // launchd's job or a person has set higher stays.
  limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, std::min<rlim_t>(OPEN_MAX, limit.rlim_max));
  (void)::setrlimit(RLIMIT_NOFILE, &limit);
}

void boundHeap() {}

}  // namespace qm
