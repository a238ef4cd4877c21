#include "platform/linux/inotify.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "foundation/strings.hpp"

namespace qm {

std::vector<std::string> foldersOnTheWay(const std::string& first, const std::string& last) {
  std::vector<std::string> folders{first};
  for (const std::string& component : pathComponents(last.substr(std::min(first.size(), last.size())))) {
    if (component != "/") folders.push_back(stringByAppendingPathComponent(folders.back(), component));
  }
  return folders;
}

std::vector<int> watchFoldersOnTheWay(int inotify, const std::vector<std::string>& folders,
                                      std::uint32_t lastFolderEvents) {
  std::vector<int> watches;
  for (const std::string& folder : folders) {
    const std::uint32_t events = watches.size() + 1 == folders.size() ? lastFolderEvents : kFolderEvents;
    const int watch = ::inotify_add_watch(inotify, folder.c_str(), events);
    if (watch < 0) break;
    watches.push_back(watch);
  }
  return watches;
}

bool readInotifyEvents(int inotify, const std::function<void(const InotifyEvent&)>& body) {
  alignas(inotify_event) std::array<char, 16384> buffer;
  ssize_t length = 0;
  do {
    length = ::read(inotify, buffer.data(), buffer.size());
  } while (length < 0 && errno == EINTR);
  if (length <= 0) return false;
  for (std::size_t offset = 0; offset + sizeof(inotify_event) <= static_cast<std::size_t>(length);) {
    inotify_event event;
    std::memcpy(&event, buffer.data() + offset, sizeof event);
    const std::string_view name = event.len == 0 ? "" : buffer.data() + offset + sizeof event;
    body({event.wd, event.mask, name});
    offset += sizeof event + event.len;
  }
  return true;
}

}  // namespace qm
