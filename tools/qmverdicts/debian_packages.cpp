#include "tools/qmverdicts/debian_packages.hpp"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <system_error>
#include <utility>

#include "platform/regular_file.hpp"
#include "tools/qmverdicts/import_lines.hpp"

namespace qm::qmverdicts {

namespace {

// Bytes; the largest real ones have some megabytes.
constexpr std::size_t kLargestDatabaseFile = 128 << 20;
constexpr std::string_view kDatabase = "/var/lib/dpkg/";

// Takes the next line, without its end, off the text.
std::string_view nextLine(std::string_view& text) {
  const std::size_t end = std::min(text.find('\n'), text.size());
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return line;
}

std::optional<MD5Value> md5FromHex(std::string_view text) {
  MD5Value md5{};
  if (text.size() != 2 * md5.size()) return std::nullopt;
  for (std::size_t i = 0; i < md5.size(); ++i) {
    const char* const start = text.data() + 2 * i;
    const auto [end, failure] = std::from_chars(start, start + 2, md5[i], 16);
    if (failure != std::errc() || end != start + 2) return std::nullopt;
  }
  return md5;
}

// One paragraph of the status file: field by field, continuation lines with theirs.
class Paragraph {
 public:
  void take(std::string_view line) {
    if (line.starts_with(' ') || line.starts_with('\t')) {
      if (isConfiguration_) takeConfiguration(line);
      return;
    }
    const std::size_t colon = std::min(line.find(':'), line.size());
    const std::string_view name = line.substr(0, colon);
    const std::string_view value = trimmed(line.substr(std::min(colon + 1, line.size())));
    isConfiguration_ = name == "Conffiles";
    if (name == "Package") package_.name = value;
    if (name == "Architecture") architecture_ = value;
    if (name == "Status") state_ = value.substr(value.rfind(' ') + 1);  // npos + 1 is the start
    if (name == "Multi-Arch") isForSeveral_ = value == "same";
  }
  void endInto(PackageStates& packages) {
    const bool isNamed = !package_.name.empty() && package_.name.find('/') == std::string::npos &&
                         architecture_.find('/') == std::string::npos;
    if (!isNamed || state_ == "not-installed" || state_ == "config-files") return;
    if (state_ != "installed" && !state_.starts_with("triggers-")) {
      packages.unfinished.push_back(package_.name + " (" + state_ + ")");
      return;
    }
    package_.filesName = package_.name + (isForSeveral_ ? ":" + architecture_ : "");
    packages.installed.push_back(std::move(package_));
  }

 private:
  // " /path md5 [obsolete|remove-on-upgrade]"; a path may have spaces.
  void takeConfiguration(std::string_view line) {
    line = trimmed(line);
    const std::size_t space = line.rfind(' ');
    if (space == std::string_view::npos || !line.starts_with('/')) return;
    if (const auto md5 = md5FromHex(line.substr(space + 1)))  // what is obsolete has none here
      package_.configuration.push_back({std::string(trimmed(line.substr(0, space))), *md5});
  }

  InstalledPackage package_;
  std::string architecture_;
  std::string state_;          // the last word of the status
  bool isForSeveral_ = false;  // architectures at once
  bool isConfiguration_ = false;
};

}  // namespace

PackageStates packageStates(std::string_view status) {
  PackageStates packages;
  while (!status.empty()) {
    Paragraph paragraph;
    while (!status.empty()) {
      const std::string_view line = nextLine(status);
      if (line.empty()) break;
      paragraph.take(line);
    }
    paragraph.endInto(packages);
  }
  return packages;
}

std::optional<RecordedFile> recordedFile(std::string_view line) {
  constexpr std::size_t kSumLength = 2 * std::tuple_size_v<MD5Value>;
  const std::optional<MD5Value> md5 = md5FromHex(line.substr(0, kSumLength));
  if (!md5 || !line.substr(kSumLength).starts_with("  ")) return std::nullopt;
  std::string_view path = line.substr(kSumLength + 2);
  if (path.starts_with("./")) path.remove_prefix(2);
  if (path.empty() || path.find('\0') != std::string_view::npos) return std::nullopt;
  return RecordedFile{(path.starts_with('/') ? "" : "/") + std::string(path), *md5};
}

Diversions::Diversions(std::string_view text) {
  while (!text.empty()) {
    const std::string_view path = nextLine(text), place = nextLine(text), package = nextLine(text);
    if (!path.empty() && place.starts_with('/'))
      diversions_.insert_or_assign(std::string(path), Diversion{std::string(place), std::string(package)});
  }
}

const std::string& Diversions::placeOf(const std::string& path, std::string_view package) const {
  const auto diversion = diversions_.find(path);
  const bool isElsewhere = diversion != diversions_.end() && diversion->second.package != package;
  return isElsewhere ? diversion->second.place : path;
}

tools::Failure DebianPackages::read(const std::string& root, const Observer& observer) {
  const std::string database = root + std::string(kDatabase);
  const std::optional<std::string> status = readRegularFile(database + "status", kLargestDatabaseFile);
  if (!status) return "no database of dpkg's: " + database + "status: " + std::strerror(errno);
  const std::optional<std::string> diverted = readRegularFile(database + "diversions", kLargestDatabaseFile);
  if (!diverted && errno != ENOENT) return database + "diversions: " + std::strerror(errno);
  const Diversions diversions(diverted.value_or(""));
  PackageStates packages = packageStates(*status);
  unfinishedPackages = std::move(packages.unfinished);
  std::size_t done = 0;
  for (const InstalledPackage& package : packages.installed) {
    readPackage(root, package, diversions);
    observer(++done, packages.installed.size());
  }
  return std::nullopt;
}

void DebianPackages::readPackage(const std::string& root, const InstalledPackage& package,
                                 const Diversions& diversions) {
  const std::string sums = root + std::string(kDatabase) + "info/" + package.filesName + ".md5sums";
  const auto take = [&](const RecordedFile& file) {
    files.push_back({root + diversions.placeOf(file.path, package.name), file.md5});
  };
  for (const RecordedFile& file : package.configuration) take(file);
  const std::optional<std::string> text = readRegularFile(sums, kLargestDatabaseFile);
  if (!text && errno == ENOENT)
    packagesWithoutSums.push_back(package.filesName);
  else if (!text)
    unreadableSums.push_back(sums + ": " + std::strerror(errno));
  std::string_view rest = text ? std::string_view(*text) : std::string_view();
  for (std::size_t number = 1; !rest.empty(); ++number) {
    if (const auto file = recordedFile(nextLine(rest)))
      take(*file);
    else
      badLines.push_back(sums + ":" + std::to_string(number));
  }
}

}  // namespace qm::qmverdicts
