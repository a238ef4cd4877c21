#include "platform/regular_file.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/file_io.hpp"

namespace qm {
namespace {

constexpr std::size_t kSmallestBuffer = 4096;  // bytes

FileKind kindOf(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return FileKind::regular;
    case S_IFDIR:
      return FileKind::directory;
    case S_IFLNK:
      return FileKind::symbolicLink;
    case S_IFIFO:
      return FileKind::fifo;
    case S_IFSOCK:
      return FileKind::socket;
    case S_IFCHR:
      return FileKind::characterDevice;
    case S_IFBLK:
      return FileKind::blockDevice;
    default:
      return FileKind::other;
  }
}

// A path as long as the system takes can hold no NUL: what follows one would silently be another file's name.
bool isUsable(const std::string& path) {
  if (path.find('\0') == std::string::npos) return true;
  errno = EINVAL;
  return false;
}

}  // namespace

const char* name(FileKind kind) {
  switch (kind) {
    case FileKind::regular:
      return "regular file";
    case FileKind::directory:
      return "directory";
    case FileKind::symbolicLink:
      return "symbolic link";
    case FileKind::fifo:
      return "named pipe";
    case FileKind::socket:
      return "socket";
    case FileKind::characterDevice:
      return "character device";
    case FileKind::blockDevice:
      return "block device";
    case FileKind::other:
      break;
  }
  return "special file";
}

OpenedFile openRegularFile(const std::string& path, SymbolicLinks links) {
  OpenedFile opened;
  const int linkFlag = links == SymbolicLinks::refuse ? O_NOFOLLOW : 0;
  const FileDescriptor place(isUsable(path) ? ::open(path.c_str(), O_PATH | O_CLOEXEC | linkFlag) : -1);
  struct stat status {};
  if (!place || ::fstat(place.get(), &status) != 0) {
    opened.errorNumber = errno;
    return opened;
  }
  opened.kind = kindOf(status.st_mode);
  if (opened.kind != FileKind::regular) return opened;

  const std::string samePlace = "/proc/self/fd/" + std::to_string(place.get());
  // Without waiting for the holder of a lease, or later for what a file of the kernel's has to say.
  opened.descriptor.reset(::open(samePlace.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  // The size counts at the moment of opening: the file may have grown since it was looked at.
  if (!opened.descriptor || ::fstat(opened.descriptor.get(), &status) != 0) {
    opened.errorNumber = errno;
    opened.descriptor.reset();
    return opened;
  }
  opened.size = status.st_size;
  return opened;
}

std::optional<std::string> readRegularFile(const std::string& path, std::size_t largestSize) {
  const OpenedFile file = openRegularFile(path, SymbolicLinks::follow);
  if (!file.descriptor) {
    errno = file.errorNumber != 0 ? file.errorNumber : file.kind == FileKind::directory ? EISDIR : EINVAL;
    return std::nullopt;
  }
  // What says it is empty may be a file of the kernel's, which has its text only for those who read it.
  const std::size_t expected = std::max(static_cast<std::size_t>(file.size), kSmallestBuffer);
  std::string content(std::min(expected, largestSize) + 1, '\0');
  std::size_t length = 0;
  for (;;) {
    const std::int64_t count = readAt(file.descriptor.get(), content.data() + length, content.size() - length,
                                      static_cast<std::int64_t>(length));
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
    if (length > largestSize) {
      errno = EFBIG;
      return std::nullopt;
    }
    if (length == content.size()) content.resize(std::min(2 * length, largestSize + 1));
  }
  content.resize(length);
  return content;
}

bool fileKind(const std::string& path, SymbolicLinks links, FileKind& kind) {
  if (!isUsable(path)) return false;
  struct stat status {};
  const int failed =
      links == SymbolicLinks::follow ? ::stat(path.c_str(), &status) : ::lstat(path.c_str(), &status);
  if (failed != 0) return false;
  kind = kindOf(status.st_mode);
  return true;
}

FileDescriptor createAnonymousFile(const std::string& name) {
  return FileDescriptor(::memfd_create(name.c_str(), MFD_CLOEXEC));
}

}  // namespace qm
