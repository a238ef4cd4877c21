// What dpkg (dpkg(1), deb-md5sums(5)) recorded about the files of the installed packages of a Debian system.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/failure.hpp"

namespace qm::qmverdicts {

using MD5Value = std::array<std::uint8_t, 16>;

struct RecordedFile {
  std::string path;  // in the system, absolute
  MD5Value md5{};
};

struct InstalledPackage {
  std::string name;
  std::string filesName;  // of its files in dpkg's info folder, without their extension
  std::vector<RecordedFile> configuration;
};

struct PackageStates {
  std::vector<InstalledPackage> installed;  // also those whose triggers are still to run
  std::vector<std::string> unfinished;      // whose files may be half there: "NAME (STATE)"
};
// The packages of dpkg's status file, whatever is wanted with them.
PackageStates packageStates(std::string_view status);

// A line of a package's list of sums; nothing when it is none.
std::optional<RecordedFile> recordedFile(std::string_view line);

// Which files of packages lie elsewhere because another package has one of that name (dpkg-divert(1)).
class Diversions {
 public:
  // dpkg's diversions file.
  explicit Diversions(std::string_view text);
  // Where a package's file is.
  const std::string& placeOf(const std::string& path, std::string_view package) const;

 private:
  struct Diversion {
    std::string place;
    std::string package;  // the one whose file has the name; ":" when a person wants it so
  };
  std::map<std::string, Diversion, std::less<>> diversions_;
};

// The recorded files of one system.
class DebianPackages {
 public:
  // Of how many packages the sums are read.
  using Observer = std::function<void(std::size_t done, std::size_t all)>;

  // Of the system that has its root there. When it has no database of dpkg's, the failure says so.
  tools::Failure read(const std::string& root, const Observer& observer);

  std::vector<RecordedFile> files;  // with their paths below the root
  std::vector<std::string> unfinishedPackages;
  std::vector<std::string> packagesWithoutSums;
  std::vector<std::string> unreadableSums;  // the file, and why
  std::vector<std::string> badLines;        // FILE:LINE of lines without a sum and a path

 private:
  void readPackage(const std::string& root, const InstalledPackage& package, const Diversions& diversions);
};

}  // namespace qm::qmverdicts
