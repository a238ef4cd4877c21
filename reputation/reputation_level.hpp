// The verdict vocabulary: the values of "reputationVerdict" on the wire and of every backend's table.
#pragma once

#include <cstdint>

namespace qm {

// Values above `undetected` can occur; they are described as "spam".
using ReputationLevel = std::uint64_t;

namespace reputation_level {

inline constexpr ReputationLevel untrusted = 0;
inline constexpr ReputationLevel unknown = 1;
inline constexpr ReputationLevel trusted = 2;
inline constexpr ReputationLevel unwanted = 3;
inline constexpr ReputationLevel suspicious = 4;
inline constexpr ReputationLevel spam = 5;
inline constexpr ReputationLevel error = 6;
inline constexpr ReputationLevel undetected = 7;

}  // namespace reputation_level
}  // namespace qm
