// Times of files, for both implementations of platform/file_io.hpp.
#pragma once

#include <cstdint>
#include <limits>

namespace qm {

// Since 1970, as a file system says it: anything. Of a time too far away the nearest that there is, about the
// years 1677 and 2262. The nanoseconds are less than a second.
constexpr std::int64_t asNanoseconds(std::int64_t seconds, std::int64_t nanoseconds) {
  using Limits = std::numeric_limits<std::int64_t>;
  constexpr std::int64_t kSecond = 1'000'000'000;
  if (seconds >= Limits::max() / kSecond) return Limits::max();
  if (seconds < Limits::min() / kSecond) return Limits::min();
  return seconds * kSecond + nanoseconds;
}

}  // namespace qm
