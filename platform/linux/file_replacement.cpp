#include "platform/file_replacement.hpp"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <utility>

#include "foundation/strings.hpp"
#include "platform/file_descriptor.hpp"
#include "platform/regular_file.hpp"

namespace qm {
namespace {

constexpr mode_t kModeOfNewFile = 0644;

// The file that a chain of links ends in; the path itself when there is none.
std::string withoutLinks(const std::string& path) {
  char* const resolved = ::realpath(path.c_str(), nullptr);
  if (resolved == nullptr) return path;
  std::string target = resolved;
  ::free(resolved);
  return target;
}

bool writeAll(int descriptor, std::string_view content) {
  while (!content.empty()) {
    const ssize_t count = ::write(descriptor, content.data(), content.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    content.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

// A finished file beside the one it is to replace; removed with this object. errno is kept.
class Draft {
 public:
  explicit Draft(const std::string& target)
      : path_(stringByAppendingPathComponent(stringByDeletingLastPathComponent(target),
                                             "." + lastPathComponent(target) + ".XXXXXX")),
        file_(::mkostemp(path_.data(), O_CLOEXEC)) {}
  ~Draft() {
    const int kept = errno;
    if (file_ && !isKept_) ::unlink(path_.c_str());
    errno = kept;
  }
  Draft(const Draft&) = delete;
  Draft& operator=(const Draft&) = delete;

  const std::string& path() const { return path_; }
  // The file under its name is not ours any more.
  void keep() { isKept_ = true; }

  bool write(std::string_view content, const struct stat* original) const {
    if (!file_ || !writeAll(file_.get(), content)) return false;
    if (original == nullptr) return ::fchmod(file_.get(), kModeOfNewFile) == 0 && ::fsync(file_.get()) == 0;
    struct stat own {};
    if (::fstat(file_.get(), &own) != 0) return false;
    // The mode while the file is still ours: that of somebody else's file takes one more capability.
    if (::fchmod(file_.get(), original->st_mode & 0777) != 0) return false;
    const bool sameOwner = own.st_uid == original->st_uid && own.st_gid == original->st_gid;
    if (!sameOwner && ::fchown(file_.get(), original->st_uid, original->st_gid) != 0) return false;
    return ::fsync(file_.get()) == 0;
  }

 private:
  std::string path_;
  const FileDescriptor file_;
  bool isKept_ = false;
};

// A file beyond that is no settings file.
constexpr std::size_t kLargestCompared = 16 * 1024 * 1024;

bool rename(const std::string& from, const std::string& to, unsigned flags) {
  return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), flags) == 0;
}

bool holds(const std::string& path, const std::string& content) {
  return readRegularFile(path, content.size()) == content;
}

FileReplacement put(const Draft& draft, const std::string& target) {
  if (rename(draft.path(), target, RENAME_NOREPLACE)) return FileReplacement::done;
  // A file system that has no such rename; the draft's own name goes with the draft.
  if (errno == EINVAL && ::link(draft.path().c_str(), target.c_str()) == 0) return FileReplacement::done;
  return errno == EEXIST ? FileReplacement::changedMeanwhile : FileReplacement::failed;
}

// Puts back what was there instead of the content. What comes out must be what was put in last; else somebody
// has changed the file once more meanwhile, and that goes back in its turn.
bool giveBack(const Draft& draft, const std::string& target, std::string_view content) {
  std::optional<std::string> placed(content);
  std::optional<std::string> held = readRegularFile(draft.path(), kLargestCompared);
  while (rename(draft.path(), target, RENAME_EXCHANGE)) {
    std::optional<std::string> found = readRegularFile(draft.path(), kLargestCompared);
    if (found == placed) return true;
    placed = std::exchange(held, std::move(found));
  }
  return false;
}

// The two files change places first, so that no moment is left in which a change by others could go unseen.
FileReplacement exchange(Draft& draft, const std::string& target, const std::string& expected,
                         std::string_view content) {
  if (rename(draft.path(), target, RENAME_EXCHANGE)) {
    if (holds(draft.path(), expected)) return FileReplacement::done;
    if (giveBack(draft, target, content)) return FileReplacement::changedMeanwhile;
    draft.keep();
    return FileReplacement::failed;
  }
  if (errno == ENOENT) return FileReplacement::changedMeanwhile;
  if (errno != EINVAL) return FileReplacement::failed;
  // A file system that cannot exchange.
  if (!holds(target, expected)) return FileReplacement::changedMeanwhile;
  return rename(draft.path(), target, 0) ? FileReplacement::done : FileReplacement::failed;
}

bool isLink(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

bool syncFolder(const std::string& folder) {
  const FileDescriptor descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return descriptor && ::fsync(descriptor.get()) == 0;
}

}  // namespace

FileReplacement replaceFile(const std::string& path, const std::optional<std::string>& expected,
                            std::string_view content) {
  const std::string target = withoutLinks(path);
  struct stat original {};
  const bool exists = ::stat(target.c_str(), &original) == 0;
  if (!exists && errno != ENOENT) return FileReplacement::failed;
  if (exists != expected.has_value()) return FileReplacement::changedMeanwhile;
  if (!exists && isLink(target)) {
    errno = ENOENT;
    return FileReplacement::failed;
  }
  Draft draft(target);
  if (!draft.write(content, exists ? &original : nullptr)) return FileReplacement::failed;
  const FileReplacement outcome = exists ? exchange(draft, target, *expected, content) : put(draft, target);
  if (outcome != FileReplacement::done) return outcome;
  return syncFolder(stringByDeletingLastPathComponent(target)) ? FileReplacement::done
                                                               : FileReplacement::failed;
}

}  // namespace qm
