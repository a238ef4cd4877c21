// What scans found out about files, so that a file that is as it was need not be read again. A file is the
// same as long as its place and its times are; whoever changes its content changes those.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>

#include "companions/recent_map.hpp"
#include "companions/verdict_store.hpp"
#include "platform/digest.hpp"
#include "platform/file_io.hpp"

namespace qm {

struct ScannedFile {
  SHA1Value sha1{};
  SHA256Value sha256{};
  StoredVerdict verdict;  // that of then
};

// Any thread.
class ScanCache {
 public:
  using Clock = std::chrono::steady_clock;
  using Generation = std::uint64_t;

  // Of more files the one that was asked about longest ago is forgotten. The time is asked of `now`, for
  // tests.
  explicit ScanCache(std::size_t maximumFiles, Clock::time_point (*now)() = Clock::now);

  // Nothing when the file is not known, has changed, or its verdict's time to live is over.
  std::optional<ScannedFile> find(const FileStatus& file);
  // A scan takes the generation before it looks at anything, and what it found out counts only when the cache
  // was not cleared meanwhile.
  Generation generation() const;
  // For the verdict's time to live; not at all when that is 0.
  void put(const FileStatus& file, const ScannedFile& scanned, Generation generation);
  void clear();

 private:
  struct Identity {
    std::int32_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = 0;
    std::int64_t modified = 0;
    std::int64_t changedNanoseconds = 0;
    friend auto operator<=>(const Identity&, const Identity&) = default;
  };
  struct Entry {
    ScannedFile scanned;
    Clock::time_point end;
  };

  static Identity identityOf(const FileStatus& file);

  Clock::time_point (*const now_)();
  mutable std::mutex mutex_;
  RecentMap<Identity, Entry> entries_;
  Generation generation_ = 0;
};

}  // namespace qm
