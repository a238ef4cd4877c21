// What the companions' tests share: the standard test file, and hashes as the agent is asked for them.
#pragma once

#include "platform/digest.hpp"
#include "support/testing.hpp"

namespace qm::test {

// The 68 bytes, put together only here: scanners remove files that hold them as a whole.
inline std::string standardTestFile() {
  return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-" + "ANTIVIRUS-TEST-FILE!$H+H*";
}

inline SHA256Value hashOf(std::string_view text) {
  return sha256(text.data(), text.size());
}

}  // namespace qm::test
