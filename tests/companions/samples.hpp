// What the companions' tests share: the standard test file, and hashes as the agent is asked for them.
#pragma once

#include <string>
#include <string_view>

#include "platform/digest.hpp"

namespace qm::test {

// The 68 bytes, put together only here: scanners remove files that hold them as a whole.
inline std::string standardTestFile() {
  return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-" + "ANTIVIRUS-TEST-FILE!$H+H*";
}

inline SHA256Value hashOf(std::string_view text) {
  return sha256(text.data(), text.size());
}

inline std::string hexOf(const SHA256Value& hash) {
  std::string text;
  for (const unsigned byte : hash) {
    text += "0123456789abcdef"[byte / 16];
    text += "0123456789abcdef"[byte % 16];
  }
  return text;
}

}  // namespace qm::test
