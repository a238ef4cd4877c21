// A map of bounded size: of more entries the one that was used longest ago is forgotten. Not for several
// threads at once.
#pragma once

#include <cstddef>
#include <iterator>
#include <list>
#include <map>
#include <utility>

namespace qm {

template <class Key, class Value>
class RecentMap {
 public:
  explicit RecentMap(std::size_t maximumSize) : maximumSize_(maximumSize) {}

  // Null when the key is not there. Until the next change of the map.
  const Value* find(const Key& key) {
    const auto place = places_.find(key);
    if (place == places_.end()) return nullptr;
    entries_.splice(entries_.begin(), entries_, place->second);
    return &place->second->second;
  }
  void put(const Key& key, Value value) {
    erase(key);
    entries_.emplace_front(key, std::move(value));
    places_.emplace(key, entries_.begin());
    if (entries_.size() > maximumSize_) erase(Key(entries_.back().first));
  }
  void erase(const Key& key) {
    const auto place = places_.find(key);
    if (place == places_.end()) return;
    entries_.erase(place->second);
    places_.erase(place);
  }
  void clear() {
    places_.clear();
    entries_.clear();
  }

 private:
  using Entries = std::list<std::pair<Key, Value>>;

  const std::size_t maximumSize_;
  Entries entries_;  // the last used first
  std::map<Key, typename Entries::iterator> places_;
};

}  // namespace qm
