#include "platform/file_io.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/types.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>

#include "platform/common/file_time.hpp"

namespace qm {
namespace {

constexpr std::string_view kDeletedSuffix = " (deleted)";

std::int64_t earliestKnownTime(const struct statx& facts) {
  return std::min({facts.stx_atime.tv_sec, facts.stx_mtime.tv_sec, facts.stx_ctime.tv_sec});
}

bool statAt(int folder, const char* path, int flags, FileStatus& status) {
  struct statx facts {};
  if (::statx(folder, path, flags | AT_STATX_SYNC_AS_STAT, STATX_BASIC_STATS | STATX_BTIME, &facts) != 0)
    return false;
  status.device = static_cast<std::int32_t>(makedev(facts.stx_dev_major, facts.stx_dev_minor));
  status.inode = facts.stx_ino;
  status.size = static_cast<std::int64_t>(facts.stx_size);
  status.owner = facts.stx_uid;
  const bool hasBirthTime = (facts.stx_mask & STATX_BTIME) != 0;
  status.created = hasBirthTime ? facts.stx_btime.tv_sec : earliestKnownTime(facts);
  status.accessed = facts.stx_atime.tv_sec;
  status.modified = facts.stx_mtime.tv_sec;
  status.changedNanoseconds = asNanoseconds(facts.stx_ctime.tv_sec, facts.stx_ctime.tv_nsec);
  status.isRegularFile = S_ISREG(facts.stx_mode);
  status.isDirectory = S_ISDIR(facts.stx_mode);
  return true;
}

// The program in the link has no name left. From what the kernel knows by itself: the file system may be one
// that does not answer.
bool isDeletedProgram(const char* link) {
  struct statx facts {};
  return ::statx(AT_FDCWD, link, AT_STATX_DONT_SYNC, STATX_NLINK, &facts) != 0 || facts.stx_nlink == 0;
}

}  // namespace

bool statPath(const char* path, FileStatus& status) {
  return statAt(AT_FDCWD, path, 0, status);
}

bool statDescriptor(int descriptor, FileStatus& status) {
  // An empty path means the descriptor itself, but a negative one could be taken for AT_FDCWD.
  if (descriptor < 0) {
    errno = EBADF;
    return false;
  }
  return statAt(descriptor, "", AT_EMPTY_PATH, status);
}

std::int64_t listExtendedAttributes(const char* path, char* names, std::size_t size) {
  return ::listxattr(path, names, names == nullptr ? 0 : size);
}

std::int64_t listExtendedAttributes(int descriptor, char* names, std::size_t size) {
  return ::flistxattr(descriptor, names, names == nullptr ? 0 : size);
}

std::int64_t getExtendedAttribute(const char* path, const char* name, void* value, std::size_t size) {
  return ::getxattr(path, name, value, value == nullptr ? 0 : size);
}

std::int64_t getExtendedAttribute(int descriptor, const char* name, void* value, std::size_t size) {
  return ::fgetxattr(descriptor, name, value, value == nullptr ? 0 : size);
}

int processPath(std::int32_t pid, char* buffer, std::size_t size) {
  if (pid <= 0) {
    errno = ESRCH;
    return 0;
  }
  const std::string link = "/proc/" + std::to_string(pid) + "/exe";
  std::array<char, PATH_MAX + 1> target{};
  const ssize_t length = ::readlink(link.c_str(), target.data(), PATH_MAX);
  if (length == -1) {
    // No such process, one that has ended, or one without a program of its own (a thread of the kernel).
    if (errno == ENOENT) errno = ESRCH;
    return 0;
  }
  const std::string_view path(target.data(), static_cast<std::size_t>(length));
  if (path.ends_with(kDeletedSuffix) && isDeletedProgram(link.c_str())) {
    errno = ENOENT;
    return 0;
  }
  if (path.size() > size) {
    errno = ENOMEM;
    return 0;
  }
  std::memcpy(buffer, path.data(), path.size());
  return static_cast<int>(path.size());
}

}  // namespace qm
