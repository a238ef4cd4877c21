// A throw-away authority for a test, made by qmcodesign, and staged installations whose programs it signs.
// Link qm_test_signing for it.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/child_process.hpp"
#include "support/scratch_folder.hpp"

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

// An installation in a folder of its own: programs staged into it take that folder as their system root.
class StagedInstallation {
 public:
  explicit StagedInstallation(const std::string& productFolder = "Quillmarsh")
      : productFolder_(productFolder) {
    std::filesystem::create_directories(folder("bin"));
    std::filesystem::create_directories(folder("trust"));
  }

  const std::filesystem::path& root() const { return scratch_.path(); }
  // Of the product's folder in the installation: "bin", "trust", "config".
  std::string folder(const std::string& name) const {
    return scratch_.path("Library") + "/" + productFolder_ + "/qxmac/" + name;
  }

  // Copies the program under the name and returns its path; it is not signed yet.
  std::string stage(const std::string& program, const std::string& name) const {
    const std::string path = folder("bin") + "/" + name;
    std::filesystem::copy_file(program, path, std::filesystem::copy_options::overwrite_existing);
    return path;
  }
  // The authority's programs are admitted from now on.
  void trust(const DevelopmentAuthority& authority) {
    std::filesystem::copy_file(authority.root(), folder("trust") + "/" + std::to_string(anchors_++) + ".pem");
  }

 private:
  ScratchFolder scratch_;
  std::string productFolder_;
  int anchors_ = 0;
};

}  // namespace qm::test
