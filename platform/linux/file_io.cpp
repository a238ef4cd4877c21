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

#include "foundation/strings.hpp"

namespace qm {
namespace {

// Text files of the product are small; what is larger is not one of them.
constexpr std::size_t kMaximumTextFileSize = 16 * 1024 * 1024;
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
  status.changedNanoseconds = facts.stx_ctime.tv_sec * 1'000'000'000 + facts.stx_ctime.tv_nsec;
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

// The bytes of the file up to the limit; on failure nothing, errno set.
std::optional<std::string> readBytes(const std::string& path) {
  const FileDescriptor file = openForReading(path.c_str());
  if (!file) return std::nullopt;
  std::string content;
  std::array<char, 16384> buffer{};
  while (true) {
    const std::int64_t count =
        readAt(file.get(), buffer.data(), buffer.size(), static_cast<std::int64_t>(content.size()));
    if (count < 0) return std::nullopt;
    if (count == 0) return content;
    content.append(buffer.data(), static_cast<std::size_t>(count));
    if (content.size() > kMaximumTextFileSize) {
      errno = EFBIG;
      return std::nullopt;
    }
  }
}

ErrorPtr makeEncodingError(const std::string& path) {
  constexpr std::int64_t kInapplicableEncoding = 261;
  constexpr std::int64_t kUTF8Encoding = 4;
  return makeError(
      kCocoaErrorDomain, kInapplicableEncoding,
      {{kLocalizedDescriptionKey,
        "The file “" + lastPathComponent(path) + "” couldn’t be opened using text encoding Unicode (UTF-8)."},
       {kFilePathKey, path},
       {"NSStringEncoding", kUTF8Encoding}});
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

FileDescriptor openForReading(const char* path) {
  int descriptor = FileDescriptor::kNone;
  do {
    descriptor = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  } while (descriptor == FileDescriptor::kNone && errno == EINTR);
  return FileDescriptor(descriptor);
}

std::int64_t readAt(int descriptor, void* buffer, std::size_t size, std::int64_t position) {
  ssize_t count = 0;
  do {
    count = ::pread(descriptor, buffer, size, position);
  } while (count == -1 && errno == EINTR);
  return count;
}

bool isReadableFile(const char* path) {
  return ::access(path, R_OK) == 0;
}

bool fileExists(const char* path) {
  return ::access(path, F_OK) == 0;
}

std::optional<std::string> readTextFile(const std::string& path, ErrorPtr* error) {
  constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
  std::optional<std::string> content = readBytes(path);
  if (!content) {
    setError(error, makeFileReadError(errno, path));
    return std::nullopt;
  }
  if (!isValidUTF8(*content)) {
    setError(error, makeEncodingError(path));
    return std::nullopt;
  }
  if (content->starts_with(kByteOrderMark)) content->erase(0, kByteOrderMark.size());
  return content;
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
