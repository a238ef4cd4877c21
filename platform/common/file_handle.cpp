#include "platform/file_handle.hpp"

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <vector>

#include "platform/disposal.hpp"
#include "platform/file_io.hpp"

namespace qm {
namespace {

constexpr std::int64_t kFileReadUnknown = 256;

ErrorPtr makeReadError(int errnoValue) {
  return makeError(kCocoaErrorDomain, kFileReadUnknown, {{kUnderlyingErrorKey, makePOSIXError(errnoValue)}});
}

void requireDescriptor(int descriptor, const char* operation) {
  if (descriptor < 0)
    throw FileHandleOperationException(std::string("*** ") + operation + ": Bad file descriptor");
}

}  // namespace

FileHandle::FileHandle(int descriptor, bool closeOnDealloc, std::optional<std::uint32_t> userID)
    : descriptor_(descriptor), closeOnDealloc_(closeOnDealloc), userID_(userID) {}

FileHandle::~FileHandle() {
  if (closeOnDealloc_) closeElsewhere(FileDescriptor(descriptor_), userID_);
}

std::shared_ptr<FileHandle> FileHandle::fileHandleForReadingAtPath(const std::string& path) {
  FileDescriptor file = openForReading(path.c_str());
  if (!file) return nullptr;
  return std::make_shared<FileHandle>(file.release(), true);
}

bool FileHandle::seekToOffset(std::uint64_t offset, ErrorPtr* error) {
  requireDescriptor(descriptor_, "seekToOffset");
  if (offset > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) {
    setError(error, makeReadError(EINVAL));
    return false;
  }
  if (::lseek(descriptor_, static_cast<off_t>(offset), SEEK_SET) != -1) return true;
  setError(error, makeReadError(errno));
  return false;
}

std::optional<Data> FileHandle::readDataUpToLength(std::size_t length, ErrorPtr* error) {
  requireDescriptor(descriptor_, "readDataUpToLength");
  // Memory grows with what is really there, so that an enormous length costs nothing on a small file.
  constexpr std::size_t kPortion = 1024 * 1024;
  std::vector<std::uint8_t> bytes;
  while (bytes.size() < length) {
    const std::size_t filled = bytes.size();
    bytes.resize(filled + std::min(length - filled, kPortion));
    const ssize_t count = ::read(descriptor_, bytes.data() + filled, bytes.size() - filled);
    const int readErrno = errno;
    bytes.resize(filled + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    if (count == 0) break;
    if (count == -1 && readErrno != EINTR) {
      setError(error, makeReadError(readErrno));
      return std::nullopt;
    }
  }
  return Data(std::move(bytes));
}

std::string FileHandle::description() const {
  char text[64];
  std::snprintf(text, sizeof text, "<FileHandle: %p>", static_cast<const void*>(this));
  return text;
}

}  // namespace qm
