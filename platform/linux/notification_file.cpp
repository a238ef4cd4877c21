#include "platform/linux/notification_file.hpp"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>

#include "foundation/strings.hpp"
#include "platform/file_io.hpp"
#include "platform/linux/run_folder.hpp"

namespace qm {
namespace {

constexpr std::size_t kStampBytes = 16;
constexpr std::size_t kLargestStamp = 64;  // of what others may have written there, as far as it is compared
constexpr int kWriteFlags = O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
constexpr mode_t kFileMode = 0644;
// How often a file may be taken away under the hands of one post.
constexpr int kMostAttempts = 1000;

std::string filePath(const std::string& name) {
  return notificationFolder() + "/" + name;
}

// Empty when there is no randomness to be had, with errno set.
std::string newStamp() {
  std::array<std::uint8_t, kStampBytes> random{};
  if (::getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size())) return {};
  return base64(random.data(), random.size()) + "\n";
}

FileDescriptor openForPosting(const std::string& path) {
  FileDescriptor file(::open(path.c_str(), kWriteFlags));
  if (file || errno != ENOENT) return file;
  if (!makeRunFolder() || !makeSharedFolder(notificationFolder())) return {};
  file.reset(::open(path.c_str(), kWriteFlags | O_CREAT | O_EXCL, kFileMode));
  if (file && ::fchmod(file.get(), kFileMode) != 0) file.reset();
  return file;
}

bool writeStamp(int file, const std::string& stamp) {
  const ssize_t written = ::pwrite(file, stamp.data(), stamp.size(), 0);
  if (written >= 0 && written != static_cast<ssize_t>(stamp.size())) errno = ENOSPC;
  return written == static_cast<ssize_t>(stamp.size());
}

bool isInPlace(int file, const std::string& path) {
  FileStatus own;
  FileStatus there;
  return statDescriptor(file, own) && statPath(path.c_str(), there) && own.device == there.device &&
         own.inode == there.inode;
}

}  // namespace

Log& notificationLog() {
  static Log& log = Log::create(kQMRLogSubsystem, "notify");
  return log;
}

std::string notificationFolder() {
  return runFolder() + "/notifications";
}

bool isNotificationName(std::string_view name) {
  return !name.empty() && name.size() <= NAME_MAX && name.front() != '.' &&
         name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos &&
         isValidUTF8(name);
}

bool staysInProcess(std::string_view name) {
  return name.starts_with("self.");
}

std::optional<std::string> readNotificationStamp(const std::string& name) {
  const FileDescriptor file = openForReading(filePath(name).c_str());
  std::string stamp(kLargestStamp, '\0');
  const std::int64_t length = file ? readAt(file.get(), stamp.data(), stamp.size(), 0) : -1;
  if (length <= 0) return std::nullopt;
  stamp.resize(static_cast<std::size_t>(length));
  return stamp;
}

// Written in place, so that a post is one event. A file or folder that was removed or replaced meanwhile
// takes the stamp with it: then it goes into the new one as well.
bool replaceNotificationStamp(const std::string& name) {
  const std::string path = filePath(name);
  const std::string stamp = newStamp();
  if (stamp.empty()) return false;
  for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
    const FileDescriptor file = openForPosting(path);
    if (!file && errno != ENOENT && errno != EEXIST) return false;
    if (!file) continue;
    if (!writeStamp(file.get(), stamp)) return false;
    if (isInPlace(file.get(), path)) return true;
  }
  errno = EAGAIN;
  return false;
}

}  // namespace qm
