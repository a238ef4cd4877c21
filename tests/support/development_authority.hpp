// A throw-away authority for a test, made by qmcodesign, that signs programs. Link qm_test_signing for it.
#pragma once

#include "support/child_process.hpp"

namespace qm::test {

// Runs qmcodesign; throws with its output unless it succeeds.
inline std::string codesign(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), QM_TEST_QMCODESIGN);
  const CommandResult result = runCommand(arguments);
  if (result.exitStatus != 0) throw std::runtime_error("qmcodesign: " + result.output);
  return result.output;
}

class DevelopmentAuthority {
 public:
  explicit DevelopmentAuthority(const std::string& team = "K7Q2M9X4T1") {
    codesign({"authority", "--team", team, folder()});
  }

  std::string folder() const { return scratch_.path("authority"); }
  std::string root() const { return folder() + "/development-root.pem"; }
  std::string certificate() const { return folder() + "/development-signing.pem"; }
  std::string key() const { return folder() + "/development-signing.key"; }

  void sign(const std::string& program) const {
    codesign({"sign", "--key", key(), "--certificate", certificate(), program});
  }

 private:
  ScratchFolder scratch_;
};

}  // namespace qm::test
