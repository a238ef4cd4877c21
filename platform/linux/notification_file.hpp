// The file of a notification: it holds a stamp that every post replaces by another one, never used before.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "foundation/log.hpp"

namespace qm {

// Where notifications that fail say why.
Log& notificationLog();

// Where the files lie, each under its notification's name: a folder in the run folder.
std::string notificationFolder();

bool isNotificationName(std::string_view name);
// Such notifications have no file.
bool staysInProcess(std::string_view name);

// Nothing when there is no file, none in it (yet), or it cannot be read.
std::optional<std::string> readNotificationStamp(const std::string& name);

// Puts a new stamp into the file, which is made with its folders when they are not there. True when the file
// was in its place afterwards; false with errno set.
[[nodiscard]] bool replaceNotificationStamp(const std::string& name);

}  // namespace qm
