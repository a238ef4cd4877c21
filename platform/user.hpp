// Who runs this program.
#pragma once

#include <cstdint>

namespace qm {

// The real user id of this process.
std::uint32_t currentUserID();

}  // namespace qm
