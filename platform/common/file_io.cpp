#include "platform/file_io.hpp"

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>

#include "foundation/strings.hpp"

namespace qm {
namespace {

// Text files of the product are small; what is larger is not one of them.
constexpr std::size_t kMaximumTextFileSize = 16 * 1024 * 1024;

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

}  // namespace qm
