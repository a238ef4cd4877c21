#include "filefacts/QMRMachoHeaderParser.hpp"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "foundation/log.hpp"
#include "platform/file_io.hpp"

namespace {

constexpr std::uint32_t MH_MAGIC = 0xFEEDFACE;
constexpr std::uint32_t MH_CIGAM = 0xCEFAEDFE;
constexpr std::uint32_t MH_MAGIC_64 = 0xFEEDFACF;
constexpr std::uint32_t MH_CIGAM_64 = 0xCFFAEDFE;
constexpr std::uint32_t FAT_MAGIC = 0xCAFEBABE;
constexpr std::uint32_t FAT_CIGAM = 0xBEBAFECA;
constexpr std::uint32_t FAT_MAGIC_64 = 0xCAFEBABF;
constexpr std::uint32_t FAT_CIGAM_64 = 0xBFBAFECA;

// The load command that only a translated executable has.
constexpr std::uint32_t kAOTLoadCommand = 0xCACACA01;

struct mach_header {
  std::uint32_t magic = 0;
  std::uint32_t cputype = 0;
  std::uint32_t cpusubtype = 0;
  std::uint32_t filetype = 0;
  std::uint32_t ncmds = 0;
  std::uint32_t sizeofcmds = 0;
  std::uint32_t flags = 0;
};

struct mach_header_64 : mach_header {
  std::uint32_t reserved = 0;
};

struct load_command {
  std::uint32_t cmd = 0;
  std::uint32_t cmdsize = 0;
};

static_assert(sizeof(mach_header) == 28 && sizeof(mach_header_64) == 32 && sizeof(load_command) == 8);

qm::Log& machoLog() {
  static qm::Log& log = qm::Log::create(qm::kQMRLogSubsystem, "QMRMachoHeaderParser");
  return log;
}

constexpr std::uint32_t swapBytes(std::uint32_t value) {
  return value << 24 | (value & 0xFF00U) << 8 | (value >> 8 & 0xFF00U) | value >> 24;
}

// The record at the start of the bytes; what is missing of it is 0. Each of its fields has 32 bits.
template <class Record>
Record readRecord(const std::uint8_t* bytes, std::size_t length, bool isSwap) {
  std::uint32_t fields[sizeof(Record) / sizeof(std::uint32_t)] = {};
  if (length > 0) std::memcpy(fields, bytes, std::min(length, sizeof fields));
  if (isSwap) std::transform(std::begin(fields), std::end(fields), std::begin(fields), swapBytes);
  Record record;
  std::memcpy(static_cast<void*>(&record), fields, sizeof fields);
  return record;
}

// The load commands of a file, read in larger portions than they are asked for: a hostile file has hundreds
// of millions of them, and two system calls for each would keep a worker busy for minutes.
class LoadCommands {
 public:
  LoadCommands(qm::FileHandle& handle, bool isSwap) : handle_(handle), isSwap_(isSwap) {}

  // Nothing when the file cannot be read there or has ended.
  std::optional<load_command> commandAt(std::uint64_t offset) {
    if (!contains(offset)) {
      std::optional<qm::Data> loaded =
          QMRMachoHeaderParser::loadBytesWithHandle(handle_, offset, kPortionSize);
      if (!loaded || loaded->empty()) return std::nullopt;
      portion_ = std::move(*loaded);
      portionOffset_ = offset;
    }
    const auto position = static_cast<std::size_t>(offset - portionOffset_);
    return readRecord<load_command>(portion_.bytes() + position, portion_.length() - position, isSwap_);
  }

 private:
  static constexpr std::size_t kPortionSize = 16 * 1024;

  bool contains(std::uint64_t offset) const {
    return offset >= portionOffset_ && portion_.length() >= sizeof(load_command) &&
           offset - portionOffset_ <= portion_.length() - sizeof(load_command);
  }

  qm::FileHandle& handle_;
  bool isSwap_;
  qm::Data portion_;
  std::uint64_t portionOffset_ = 0;
};

std::shared_ptr<qm::FileHandle> openHandle(const std::optional<std::string>& path, int descriptor) {
  if (path) return qm::FileHandle::fileHandleForReadingAtPath(*path);
  if (descriptor >= 1) return std::make_shared<qm::FileHandle>(descriptor, false);
  return nullptr;
}

}  // namespace

bool QMRMachoHeaderParser::isAOTBinaryAtPath(const std::optional<std::string>& path, int descriptor) {
  qm::Log& log = machoLog();
  if (path && !qm::isReadableFile(path->c_str()) && path->ends_with(".aot")) {
    QM_LOG_DEBUG(log, "File at %@ cannot be accessed but has .aot extension. Treating it as AOT binary",
                 path);
    return true;
  }
  const std::shared_ptr<qm::FileHandle> handle = openHandle(path, descriptor);
  if (handle == nullptr) {
    QM_LOG_ERROR(log, "Could not open file at %@ (%d)", path, descriptor);
    return false;
  }
  QM_LOG_DEBUG(log, "Parsing %@", path ? *path : "fd " + std::to_string(descriptor));
  return parseSegmentsWithHandle(*handle);
}

bool QMRMachoHeaderParser::parseSegmentsWithHandle(qm::FileHandle& handle) {
  qm::Log& log = machoLog();
  const std::uint32_t magic = getMagicWithHandle(handle, 0);
  if (!isInterestingMagic(magic)) {
    QM_LOG_DEBUG(log, "Skipping file with non intesting magic (non MachO binary)");
    return false;
  }
  if (isFatBinaryWithMagic(magic)) {
    QM_LOG_DEBUG(log, "Skipping fat binaries");
    return false;
  }
  return parseMachHeaderWithHandle(handle, 0, isMagic64(magic), shouldSwapBytesWithMagic(magic));
}

bool QMRMachoHeaderParser::parseMachHeaderWithHandle(qm::FileHandle& handle, std::uint64_t offset, bool is64,
                                                     bool isSwap) {
  const std::size_t headerSize = is64 ? sizeof(mach_header_64) : sizeof(mach_header);
  const std::optional<qm::Data> bytes = loadBytesWithHandle(handle, offset, headerSize);
  if (!bytes || bytes->empty()) return false;
  const auto header = readRecord<mach_header>(bytes->bytes(), bytes->length(), isSwap);
  return findAOTLoadCommandWithHandle(handle, offset + headerSize, isSwap, header.ncmds);
}

bool QMRMachoHeaderParser::findAOTLoadCommandWithHandle(qm::FileHandle& handle, std::uint64_t offset,
                                                        bool isSwap, std::uint32_t ncmds) {
  LoadCommands commands(handle, isSwap);
  for (std::uint32_t i = 0; i < ncmds; ++i) {
    const std::optional<load_command> command = commands.commandAt(offset);
    // Nothing more to read, now or on another try at the same place.
    if (!command) return false;
    if (command->cmd == kAOTLoadCommand) {
      QM_LOG_DEBUG(machoLog(), "Found AOT binary load command!");
      return true;
    }
    // A command without a size would be read again and again.
    if (command->cmdsize == 0) return false;
    offset += command->cmdsize;
  }
  return false;
}

std::uint32_t QMRMachoHeaderParser::getMagicWithHandle(qm::FileHandle& handle, std::uint64_t offset) {
  std::uint32_t magic = 0;
  const std::optional<qm::Data> bytes = loadBytesWithHandle(handle, offset, sizeof magic);
  if (bytes && !bytes->empty()) std::memcpy(&magic, bytes->bytes(), std::min(bytes->length(), sizeof magic));
  return magic;
}

std::optional<qm::Data> QMRMachoHeaderParser::loadBytesWithHandle(qm::FileHandle& handle,
                                                                  std::uint64_t offset, std::size_t size) {
  try {
    qm::ErrorPtr error;
    if (handle.seekToOffset(offset, &error)) {
      if (std::optional<qm::Data> bytes = handle.readDataUpToLength(size, &error)) return bytes;
    }
    QM_LOG_ERROR(machoLog(), "Error occurred while loading contents: %{public}@", error);
  } catch (const qm::FileHandleOperationException& exception) {
    QM_LOG_ERROR(machoLog(), "NSFileHandle raised an exception while loading contents: %{public}@",
                 exception.what());
  }
  return std::nullopt;
}

bool QMRMachoHeaderParser::isMagic32(std::uint32_t magic) {
  return magic == MH_MAGIC || magic == MH_CIGAM;
}

bool QMRMachoHeaderParser::isMagic64(std::uint32_t magic) {
  return magic == MH_MAGIC_64 || magic == MH_CIGAM_64;
}

bool QMRMachoHeaderParser::isFatBinaryWithMagic(std::uint32_t magic) {
  return magic == FAT_MAGIC || magic == FAT_MAGIC_64 || magic == FAT_CIGAM || magic == FAT_CIGAM_64;
}

bool QMRMachoHeaderParser::shouldSwapBytesWithMagic(std::uint32_t magic) {
  return magic == MH_CIGAM || magic == MH_CIGAM_64 || magic == FAT_CIGAM || magic == FAT_CIGAM_64;
}

bool QMRMachoHeaderParser::isInterestingMagic(std::uint32_t magic) {
  return isMagic32(magic) || isMagic64(magic) || isFatBinaryWithMagic(magic);
}
