#include "tools/qmr/file_walker.hpp"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/file_io.hpp"

namespace qm::qmr {
namespace {

namespace fs = std::filesystem;

struct Entry {
  std::string path;
  fs::file_type type = fs::file_type::unknown;
};

// Sorted so that the last one comes first.
std::vector<Entry> entriesOf(const std::string& directory, std::error_code& error) {
  std::vector<Entry> entries;
  for (fs::directory_iterator position(directory, error), end; !error && position != end;
       position.increment(error)) {
    std::error_code statusError;
    const fs::file_type type = position->symlink_status(statusError).type();
    entries.push_back({position->path().string(), statusError ? fs::file_type::unknown : type});
  }
  std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.path > b.path; });
  return entries;
}

}  // namespace

void FileWalker::walk(const std::string& path) const {
  FileKind kind = FileKind::other;
  if (!fileKind(path, SymbolicLinks::follow, kind) || kind != FileKind::directory)
    return visitor_.file(path, SymbolicLinks::follow);
  if (!options_.recursive)
    return visitor_.failed(path, ReputationFailure::notARegularFile, "is a directory (use -r)");
  walkDirectory(path);
}

void FileWalker::walkDirectory(const std::string& directory) const {
  FileStatus status;
  const bool known = statPath(directory.c_str(), status);
  const std::int32_t device = status.device;
  std::vector<Entry> pending{{directory, fs::file_type::directory}};
  while (!pending.empty() && !visitor_.shouldStop()) {
    const Entry entry = std::move(pending.back());
    pending.pop_back();
    if (entry.type == fs::file_type::symlink) {
      visitor_.linkSkipped();
    } else if (entry.type != fs::file_type::directory) {
      visitor_.file(entry.path, SymbolicLinks::refuse);
    } else {
      if (options_.oneFileSystem && known && statPath(entry.path.c_str(), status) && status.device != device)
        continue;
      std::error_code error;
      std::vector<Entry> entries = entriesOf(entry.path, error);
      // What could be read of it is visited all the same.
      if (error) visitor_.failed(entry.path, ReputationFailure::unreadableFile, error.message());
      std::move(entries.begin(), entries.end(), std::back_inserter(pending));
    }
  }
}

}  // namespace qm::qmr
