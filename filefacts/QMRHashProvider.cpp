#include "filefacts/QMRHashProvider.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <utility>

#include "filefacts/concurrent_digests.hpp"
#include "filefacts/hash_cache.hpp"
#include "foundation/error.hpp"
#include "foundation/log.hpp"
#include "foundation/strings.hpp"
#include "platform/file_io.hpp"
#include "platform/long_work.hpp"
#include "platform/read_buffer.hpp"

namespace {

constexpr std::size_t kHashCacheCountLimit = 1024;

// A read comes into memory in portions, in bytes, that are digested while they lie in the processor's second
// cache: a buffer for the whole read would be new memory for the system to make and to clear with every file,
// and each byte would go out to the main memory and come back. Smaller portions are no faster, and would cost
// a file system of another machine more questions.
constexpr std::size_t kReadPortion = 128 * 1024;
// Of a file that two processors may work on: they lose a moment with each portion until both are at it.
constexpr std::size_t kReadPortionOfLongFile = 512 * 1024;

enum class ErrorCode : std::int64_t {
  readFailed = 100,
  sizeMismatch = 101,
  openFailed = 102,
  statFailed = 103,
  fileTooBig = 104,
};

qm::Log& hashProviderLog() {
  static qm::Log& log = qm::Log::create(qm::kQMRLogSubsystem, "QMRHashProvider");
  return log;
}

qm::ErrorPtr makeProviderError(ErrorCode code) {
  return qm::makeError(QMRHashProviderErrorDomain, static_cast<std::int64_t>(code));
}

qm::ErrorPtr makeProviderError(ErrorCode code, int errnoValue) {
  return qm::makeError(QMRHashProviderErrorDomain, static_cast<std::int64_t>(code), {{"errno", errnoValue}});
}

template <class Digest>
qm::Data dataOf(const Digest& digest) {
  return qm::Data(digest.data(), digest.size());
}

// One reading of a file: what was read, and how it ended.
struct FileReading {
  // The buffer holds a portion, or two: the next one is read while the other is digested.
  FileReading(const qm::ReadBuffer& buffer, std::size_t size)
      : portionSize(size),
        portion(buffer.bytes()),
        spare(buffer.size() > size ? buffer.bytes() + size : nullptr) {}

  // To be called with every size in bytes that the file is said or seen to have.
  void reaches(std::uint64_t size) {
    if (size > kLargestShortFile && !longWork) longWork.emplace();
  }
  void digestPortion(std::size_t length);

  const std::size_t portionSize;
  std::uint8_t* portion;  // where the next one is read to
  std::uint8_t* spare;    // another place, or null
  std::optional<qm::LongWork> longWork;
  qm::ConcurrentDigests digests;
  std::optional<qm::Data> magicBytes;
  std::int64_t byteCount = 0;
  bool failed = false;
  int errnoValue = 0;
};

// A processor that nobody else wants does half of it, while the next portion is read to the other place.
void FileReading::digestPortion(std::size_t length) {
  if (spare == nullptr || !longWork || !longWork->mayUseAnotherProcessor()) {
    digests.update(portion, length);
    return;
  }
  digests.updateConcurrently(portion, length);
  std::swap(portion, spare);
}

// One read of up to `size` bytes at the end of what was read so far. Like the system's it ends early at the
// end of the file, where the file gave less than was asked, and before a portion that failed; what it returns
// is the system's, too.
std::int64_t readOnce(int descriptor, std::uint64_t size, FileReading& reading) {
  std::uint64_t total = 0;
  while (true) {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(size - total, reading.portionSize));
    const std::int64_t count =
        qm::readAt(descriptor, reading.portion, wanted, reading.byteCount + static_cast<std::int64_t>(total));
    if (count <= 0) return total > 0 ? static_cast<std::int64_t>(total) : count;
    const auto length = static_cast<std::size_t>(count);
    if (!reading.magicBytes)
      reading.magicBytes = qm::Data(reading.portion, std::min<std::size_t>(length, kMagicBytesLength));
    reading.digestPortion(length);
    total += length;
    reading.reaches(static_cast<std::uint64_t>(reading.byteCount) + total);
    if (length < wanted || total == size) return static_cast<std::int64_t>(total);
  }
}

void readAndHash(int descriptor, std::uint64_t readSize, FileReading& reading) {
  qm::Log& log = hashProviderLog();
  // Past the largest size that is accepted the announced one cannot be met any more.
  while (reading.byteCount <= static_cast<std::int64_t>(kMaxFileSizeForHashing)) {
    const std::int64_t count = readOnce(descriptor, readSize, reading);
    if (count <= 0) {
      reading.failed = count < 0;
      reading.errnoValue = errno;
      return;
    }
    QM_LOG_DEBUG(log, "Read and hashed %zd bytes", count);
    reading.byteCount += count;
  }
}

std::shared_ptr<QMRHashCacheEntry> makeEntry(FileReading& reading) {
  qm::SHA1Value sha1{};
  qm::SHA256Value sha256{};
  reading.digests.finish(sha1, sha256);
  auto entry = std::make_shared<QMRHashCacheEntry>();
  entry->setSha1(dataOf(sha1));
  entry->setSha256(dataOf(sha256));
  entry->setMagicBytes(reading.magicBytes ? std::move(*reading.magicBytes) : qm::Data());
  return entry;
}

}  // namespace

QMRHashProvider::QMRHashProvider() : hashCache_(std::make_unique<qm::HashCache>(kHashCacheCountLimit)) {}
QMRHashProvider::~QMRHashProvider() = default;

std::shared_ptr<QMRHashCacheEntry> QMRHashProvider::generateHashesForFiledescriptor(int descriptor,
                                                                                    std::uint64_t fileSize,
                                                                                    qm::ErrorPtr* error) {
  qm::Log& log = hashProviderLog();
  QM_LOG_DEBUG(log, "Calculating hashes from file descriptor %d of size %zu", descriptor, fileSize);
  if (fileSize > kMaxFileSizeForHashing) {
    qm::setError(error, makeProviderError(ErrorCode::fileTooBig));
    QM_LOG_ERROR(log, "Error: file too big (%zu bytes) for hashing", fileSize);
    return nullptr;
  }
  const auto expectedSize = static_cast<std::int64_t>(fileSize);
  const std::uint64_t readSize = std::min(fileSize, kHashBufferMaxSize);
  const bool isLong = fileSize > kLargestShortFile;
  const std::size_t portionSize =
      isLong ? kReadPortionOfLongFile
             : static_cast<std::size_t>(std::min<std::uint64_t>(fileSize, kReadPortion));
  const qm::ReadBuffer buffer(isLong ? 2 * portionSize : portionSize);
  if (!buffer) {
    // Deliberately, the caller's error stays as it is.
    QM_LOG_ERROR(log, "Error allocating buffer of %zd bytes: %s", expectedSize, qm::systemErrorText(errno));
    return nullptr;
  }
  FileReading reading(buffer, portionSize);
  reading.reaches(fileSize);
  readAndHash(descriptor, readSize, reading);
  if (reading.failed) {
    QM_LOG_ERROR(log, "Error reading from file descriptor (errno=%d): %s", reading.errnoValue,
                 qm::systemErrorText(reading.errnoValue));
    qm::setError(error, makeProviderError(ErrorCode::readFailed, reading.errnoValue));
    return nullptr;
  }
  if (reading.byteCount != expectedSize) {
    QM_LOG_ERROR(log, "Read byte count %zd does not match expected size %zd, file may have been truncated",
                 reading.byteCount, expectedSize);
    qm::setError(error, makeProviderError(ErrorCode::sizeMismatch));
    return nullptr;
  }
  std::shared_ptr<QMRHashCacheEntry> entry = makeEntry(reading);
  QM_LOG_DEBUG(log, "Read %zd bytes & calculated hashes %@", expectedSize, entry);
  return entry;
}

std::shared_ptr<QMRHashCacheEntry> QMRHashProvider::generateHashesForPath(const std::string& path,
                                                                          qm::ErrorPtr* error) {
  QM_LOG_DEBUG(hashProviderLog(), "Calculating hashes for %@", path);
  const qm::FileDescriptor file = qm::openForReading(path.c_str());
  if (!file) {
    qm::setError(error, makeProviderError(ErrorCode::openFailed, errno));
    return nullptr;
  }
  qm::FileStatus status;
  if (!qm::statDescriptor(file.get(), status)) {
    qm::setError(error, makeProviderError(ErrorCode::statFailed, errno));
    return nullptr;
  }
  return generateHashesForFiledescriptor(file.get(), static_cast<std::uint64_t>(status.size), error);
}

std::shared_ptr<QMRHashCacheEntry> QMRHashProvider::generateHashesForBuffer(const void* bytes,
                                                                            std::size_t length) {
  auto entry = std::make_shared<QMRHashCacheEntry>();
  entry->setSha1(dataOf(qm::sha1(bytes, length)));
  entry->setSha256(dataOf(qm::sha256(bytes, length)));
  return entry;
}

std::string QMRHashProvider::sha1StringForBuffer(const std::uint8_t* digest) {
  return hexStringForBytes(digest, qm::SHA1Value().size());
}

std::string QMRHashProvider::sha256StringForBuffer(const std::uint8_t* digest) {
  return hexStringForBytes(digest, qm::SHA256Value().size());
}

std::string QMRHashProvider::hexStringForBytes(const std::uint8_t* bytes, std::size_t size) {
  if (bytes == nullptr) {
    QM_LOG_ERROR(hashProviderLog(), "Invalid hash buffer received");
    return {};
  }
  return qm::hexadecimal(bytes, size);
}

std::shared_ptr<QMRHashCacheEntry> QMRHashProvider::hashesForPath(const std::string& path,
                                                                  qm::ErrorPtr* error) {
  if (std::shared_ptr<QMRHashCacheEntry> cached = hashCache_->entryForPath(path)) {
    QM_LOG_DEBUG(hashProviderLog(), "Providing cached hashes for %@", path);
    return cached;
  }
  std::shared_ptr<QMRHashCacheEntry> entry = generateHashesForPath(path, error);
  if (entry != nullptr) hashCache_->setEntry(path, entry);
  return entry;
}

void QMRHashProvider::invalidateHashesForPath(const std::string& path) {
  hashCache_->removeEntryForPath(path);
}

std::string QMRHashProvider::description() const {
  char text[64];
  std::snprintf(text, sizeof text, "<QMRHashProvider: %p>", static_cast<const void*>(this));
  return text;
}
