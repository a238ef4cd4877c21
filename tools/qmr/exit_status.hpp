// The exit statuses of qmr, as its help and manual page describe them.
#pragma once

namespace qm::qmr {

inline constexpr int kNothingBad = 0;
inline constexpr int kBadFound = 1;  // wins over kNotAnswered
inline constexpr int kNotThere = 1;  // of the settings
inline constexpr int kNotAnswered = 2;
inline constexpr int kBadUsage = 2;

}  // namespace qm::qmr
