#include "companions/scan_cache.hpp"

namespace qm {

ScanCache::ScanCache(std::size_t maximumFiles, Clock::time_point (*now)())
    : maximumFiles_(maximumFiles), now_(now) {}

ScanCache::Identity ScanCache::identityOf(const FileStatus& file) {
  return {file.device, file.inode, file.size, file.modified, file.changedNanoseconds};
}

std::optional<ScannedFile> ScanCache::find(const FileStatus& file) {
  const std::lock_guard lock(mutex_);
  const auto place = places_.find(identityOf(file));
  if (place == places_.end()) return std::nullopt;
  const Entries::iterator entry = place->second;
  if (entry->end <= now_()) {
    remove(entry);
    return std::nullopt;
  }
  entries_.splice(entries_.begin(), entries_, entry);
  return entry->scanned;
}

void ScanCache::put(const FileStatus& file, const ScannedFile& scanned) {
  const std::lock_guard lock(mutex_);
  const Identity identity = identityOf(file);
  if (const auto place = places_.find(identity); place != places_.end()) remove(place->second);
  entries_.push_front({identity, scanned, now_() + std::chrono::seconds(scanned.verdict.ttl)});
  places_.emplace(identity, entries_.begin());
  if (entries_.size() > maximumFiles_) remove(std::prev(entries_.end()));
}

void ScanCache::remove(Entries::iterator entry) {
  places_.erase(entry->identity);
  entries_.erase(entry);
}

void ScanCache::clear() {
  const std::lock_guard lock(mutex_);
  places_.clear();
  entries_.clear();
}

std::size_t ScanCache::size() const {
  const std::lock_guard lock(mutex_);
  return entries_.size();
}

}  // namespace qm
