#include "companions/scan_cache.hpp"

namespace qm {

ScanCache::ScanCache(std::size_t maximumFiles, Clock::time_point (*now)())
    : now_(now), entries_(maximumFiles) {}

ScanCache::Identity ScanCache::identityOf(const FileStatus& file) {
  return {file.device, file.inode, file.size, file.modified, file.changedNanoseconds};
}

std::optional<ScannedFile> ScanCache::find(const FileStatus& file) {
  const std::lock_guard lock(mutex_);
  const Entry* const entry = entries_.find(identityOf(file));
  if (entry == nullptr) return std::nullopt;
  if (entry->end > now_()) return entry->scanned;
  entries_.erase(identityOf(file));
  return std::nullopt;
}

ScanCache::Generation ScanCache::generation() const {
  const std::lock_guard lock(mutex_);
  return generation_;
}

void ScanCache::put(const FileStatus& file, const ScannedFile& scanned, Generation generation) {
  const std::lock_guard lock(mutex_);
  if (generation != generation_ || scanned.verdict.ttl == 0) return;
  entries_.put(identityOf(file), {scanned, now_() + std::chrono::seconds(scanned.verdict.ttl)});
}

void ScanCache::clear() {
  const std::lock_guard lock(mutex_);
  ++generation_;
  entries_.clear();
}

}  // namespace qm
