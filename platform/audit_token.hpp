// Who a peer is: eight 32-bit words, fixed when the peer connects.
#pragma once

#include <array>
#include <cstdint>

namespace qm {

struct AuditToken {
  // 0 audit user, 1 effective user, 2 effective group, 3 real user, 4 real group, 5 process, 6 audit session,
  // 7 version of the process id (macOS) or the low 32 bits of the process's start time in clock ticks
  // (Linux), which tell a reused process id apart.
  std::array<std::uint32_t, 8> words{};

  std::uint32_t effectiveUserID() const { return words[1]; }
  std::int32_t processID() const { return static_cast<std::int32_t>(words[5]); }

  friend bool operator==(const AuditToken&, const AuditToken&) = default;
};
static_assert(sizeof(AuditToken) == 32);

}  // namespace qm
