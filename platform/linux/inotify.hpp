// What the users of inotify(7) share: watching the folders on the way to a file, which may come and go, and
// reading the events.
#pragma once

#include <sys/inotify.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace qm {

// Something in a folder, or the folder itself, comes, goes, moves or may be entered now.
inline constexpr std::uint32_t kFolderEvents = IN_ONLYDIR | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                                               IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ATTRIB;

// From the first folder, which the last one is or lies below, to the last one. Both are absolute.
std::vector<std::string> foldersOnTheWay(const std::string& first, const std::string& last);

// Watches every folder before the next one is looked for, so that whatever appears later makes an event.
// Returns the watch descriptors; when there are fewer than folders, errno says why.
std::vector<int> watchFoldersOnTheWay(int inotify, const std::vector<std::string>& folders,
                                      std::uint32_t lastFolderEvents);

struct InotifyEvent {
  int watch = -1;  // the descriptor of the watch; -1 when events were lost
  std::uint32_t mask = 0;
  std::string_view name;  // of what is in the folder; empty for the watched itself, and when events were lost
};

// Reads as many events as fit into one read, from a non-blocking descriptor. False: there were none.
bool readInotifyEvents(int inotify, const std::function<void(const InotifyEvent&)>& body);

}  // namespace qm
