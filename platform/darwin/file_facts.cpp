// What the system knows about files, and the program files of processes.
#include <libproc.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "platform/common/file_time.hpp"
#include "platform/file_io.hpp"

namespace qm {
namespace {

// A file system that keeps no creation time says 0 (stat(2)).
std::int64_t creationTime(const struct stat& facts) {
  if (facts.st_birthtimespec.tv_sec != 0 || facts.st_birthtimespec.tv_nsec != 0)
    return facts.st_birthtimespec.tv_sec;
  return std::min({facts.st_atimespec.tv_sec, facts.st_mtimespec.tv_sec, facts.st_ctimespec.tv_sec});
}

void fill(FileStatus& status, const struct stat& facts) {
  status.device = facts.st_dev;
  status.inode = facts.st_ino;
  status.size = facts.st_size;
  status.owner = facts.st_uid;
  status.created = creationTime(facts);
  status.accessed = facts.st_atimespec.tv_sec;
  status.modified = facts.st_mtimespec.tv_sec;
  status.changedNanoseconds = asNanoseconds(facts.st_ctimespec.tv_sec, facts.st_ctimespec.tv_nsec);
  status.isRegularFile = S_ISREG(facts.st_mode);
  status.isDirectory = S_ISDIR(facts.st_mode);
}

constexpr int kFollowLinks = 0;                 // options of the attribute calls
constexpr std::uint32_t kFromTheBeginning = 0;  // only resource forks have positions

}  // namespace

bool statPath(const char* path, FileStatus& status) {
  struct stat facts {};
  if (::stat(path, &facts) != 0) return false;
  fill(status, facts);
  return true;
}

bool statDescriptor(int descriptor, FileStatus& status) {
  struct stat facts {};
  if (::fstat(descriptor, &facts) != 0) return false;
  fill(status, facts);
  return true;
}

std::int64_t listExtendedAttributes(const char* path, char* names, std::size_t size) {
  return ::listxattr(path, names, names == nullptr ? 0 : size, kFollowLinks);
}

std::int64_t listExtendedAttributes(int descriptor, char* names, std::size_t size) {
  return ::flistxattr(descriptor, names, names == nullptr ? 0 : size, kFollowLinks);
}

std::int64_t getExtendedAttribute(const char* path, const char* name, void* value, std::size_t size) {
  return ::getxattr(path, name, value, value == nullptr ? 0 : size, kFromTheBeginning, kFollowLinks);
}

std::int64_t getExtendedAttribute(int descriptor, const char* name, void* value, std::size_t size) {
  return ::fgetxattr(descriptor, name, value, value == nullptr ? 0 : size, kFromTheBeginning, kFollowLinks);
}

int processPath(std::int32_t pid, char* buffer, std::size_t size) {
  // The call takes neither smaller nor larger buffers, and ends the path with a NUL.
  std::array<char, PROC_PIDPATHINFO_MAXSIZE> path{};
  const int length = ::proc_pidpath(pid, path.data(), static_cast<std::uint32_t>(path.size()));
  if (length <= 0) return 0;
  if (static_cast<std::size_t>(length) > size) {
    errno = ENOMEM;
    return 0;
  }
  std::memcpy(buffer, path.data(), static_cast<std::size_t>(length));
  return length;
}

}  // namespace qm
