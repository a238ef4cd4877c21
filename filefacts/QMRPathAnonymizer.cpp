#include "filefacts/QMRPathAnonymizer.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <memory>
#include <optional>
#include <string_view>

#include "foundation/log.hpp"
#include "foundation/strings.hpp"
#include "platform/text.hpp"
#include "settings/QMRNamespace.hpp"

namespace {

using std::string_view_literals::operator""sv;

constexpr std::string_view kProfile = "%PROFILE%";
constexpr std::string_view kProductFolder = "/Library/Quillmarsh";
constexpr std::string_view kDataVolume = "/System/Volumes/Data";
constexpr std::string_view kDataVolumeUsers = "/System/Volumes/Data/Users/";
constexpr std::string_view kHomePattern = "^/Users/[^/]+";

// What they have may stay in the name: files of these types are programs or carry them.
constexpr std::array kProgramExtensions{"apk"sv, "bat"sv, "cab"sv, "com"sv, "dll"sv, "dmg"sv, "dylib"sv,
                                        "exe"sv, "js"sv,  "pkg"sv, "pl"sv,  "py"sv,  "sh"sv,  "so"sv};

// Where users keep things of their own: here even programs do not keep their folders.
constexpr std::array kWatchedAreas{"/private/var/folders/"sv, "/Volumes/"sv, "/Library/"sv, "%PROFILE%/"sv};

// Beginnings that say nothing about the user, the first that fits is kept.
constexpr std::array kKeptPrefixes{"/tmp/"sv,
                                   "/private/tmp/"sv,
                                   "/Volumes/Recovery"sv,
                                   "/Volumes/Preboot"sv,
                                   "/Library/LaunchAgents/"sv,
                                   "/Library/LaunchDaemons/"sv,
                                   "%PROFILE%/Downloads/"sv,
                                   "%PROFILE%/Documents/"sv,
                                   "%PROFILE%/Library/Application Support/"sv,
                                   "%PROFILE%/Library/LaunchAgents/"sv,
                                   "%PROFILE%/Library/LaunchDaemons/"sv,
                                   "%PROFILE%/Library/"sv,
                                   "%PROFILE%/"sv,
                                   "/private/var/folders/"sv,
                                   "/Volumes/"sv,
                                   "/Library/"sv,
                                   "%PROFILE%/"sv};

qm::Log& logger() {
  static qm::Log& log = qm::Log::create(qm::kQMRLogSubsystem, "QMRPathAnonymizer");
  return log;
}

// Set up once for the process: that takes longer than the rest of a path's way.
struct HomeFolder {
  static const HomeFolder& shared() {
    static const HomeFolder& homeFolder = *new HomeFolder;  // never destroyed: workers run until the end
    return homeFolder;
  }

  qm::ErrorPtr error;
  const std::unique_ptr<const qm::RegularExpression> pattern =
      qm::RegularExpression::create(kHomePattern, true, &error);
};

std::string withExtension(const std::string& path, const std::string& extension) {
  if (extension.empty()) return path;
  return qm::stringByAppendingPathExtension(qm::stringByDeletingPathExtension(path), extension)
      .value_or(path);
}

// The first of the prefixes that the path starts with, empty when none does.
template <std::size_t count>
std::string_view firstPrefix(const std::array<std::string_view, count>& prefixes, std::string_view path) {
  const auto found = std::find_if(prefixes.begin(), prefixes.end(),
                                  [path](std::string_view prefix) { return path.starts_with(prefix); });
  return found == prefixes.end() ? std::string_view() : *found;
}

bool isWatched(std::string_view path) {
  return !firstPrefix(kWatchedAreas, path).empty() &&
         !path.starts_with(QMRNamespace::namespacedWithPath(kProductFolder));
}

// Placeholders for all components but the last, which is kept or gives its extension only.
std::string withPlaceholders(std::string_view path, bool isNameKept, const std::string& extension) {
  const std::vector<std::string> components = qm::pathComponents(path);
  if (components.empty()) return {};
  std::string result;
  for (std::size_t level = 1; level < components.size(); ++level)
    result += "<dir" + std::to_string(level) + ">/";
  return result + (isNameKept ? components.back() : "<file_name>." + extension);
}

}  // namespace

std::string QMRPathAnonymizer::anonymize(const std::string& path) {
  const std::string extension = qm::lowercaseString(qm::pathExtension(path));
  std::string spelled = withExtension(path, extension);
  if (spelled.starts_with(kDataVolumeUsers)) spelled.erase(0, kDataVolume.size());

  const HomeFolder& homeFolder = HomeFolder::shared();
  if (homeFolder.pattern == nullptr) {
    QM_LOG_ERROR(logger(), "Error setting up regex: %{public}@", homeFolder.error);
    return path;
  }
  std::size_t replaced = 0;
  std::string masked = homeFolder.pattern->stringByReplacingMatches(spelled, kProfile, replaced);
  if (masked.ends_with('/')) masked.pop_back();

  const bool isNameKept = extension.empty() || std::find(kProgramExtensions.begin(), kProgramExtensions.end(),
                                                         extension) != kProgramExtensions.end();
  if (path.starts_with("/System/Library/") || path.starts_with("/System/Applications/")) return masked;
  if (isNameKept && !isWatched(masked)) return masked;

  const std::string_view prefix = firstPrefix(kKeptPrefixes, masked);
  if (replaced != 0 && prefix.empty()) return masked;
  const std::string_view rest = std::string_view(masked).substr(prefix.size());
  return std::string(prefix) + withPlaceholders(rest, isNameKept, extension);
}

std::vector<std::string> QMRPathAnonymizer::anonymizeAll(const std::vector<std::string>& paths) {
  std::vector<std::string> result;
  result.reserve(paths.size());
  std::transform(paths.begin(), paths.end(), std::back_inserter(result), anonymize);
  return result;
}
