// The running program's bundle: the folder of the executable, its information the Info.plist in a section of
// it (Mach-O __TEXT,__info_plist; ELF ".info_plist").
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "foundation/value.hpp"

namespace qm {

class MainBundle {
 public:
  // Read once; never changes.
  static const MainBundle& instance();

  const Dictionary& infoDictionary() const { return infoDictionary_; }
  std::optional<std::string> bundleIdentifier() const;    // CFBundleIdentifier
  std::optional<std::string> shortVersionString() const;  // CFBundleShortVersionString
  const std::string& bundlePath() const { return bundlePath_; }
  // The path of a resource file if there is one of that name: on Linux in the Resources folder beside
  // the executable, on macOS where the system looks.
  std::optional<std::string> pathForResource(std::string_view name) const;

 private:
  MainBundle();

  Dictionary infoDictionary_;
  std::string bundlePath_;
};

}  // namespace qm
