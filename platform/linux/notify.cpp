#include "platform/notify.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "platform/linux/notification_center.hpp"
#include "platform/linux/notification_file.hpp"

namespace qm {
namespace {

NotifyStatus statusOf(int error) {
  switch (error) {
    case EACCES:
    case EPERM:
    case EROFS:
      return NotifyStatus::notAuthorized;
    case ENAMETOOLONG:
      return NotifyStatus::invalidName;
    default:
      return NotifyStatus::failed;
  }
}

// A name reserved for a user may be posted by that one and by root.
bool mayPost(std::string_view name) {
  constexpr std::string_view kUserPrefix = "user.uid.";
  if (::geteuid() == 0) return true;
  if (name.starts_with("com.apple.system.")) return false;
  if (!name.starts_with(kUserPrefix)) return true;
  const std::string_view rest = name.substr(kUserPrefix.size());
  return rest.substr(0, rest.find('.')) == std::to_string(::geteuid());
}

}  // namespace

NotifyStatus notifyRegisterDispatch(std::string_view name, int* token, const Queue& queue,
                                    Block<void(int token)> handler) {
  if (token == nullptr) return NotifyStatus::nullInput;
  *token = kNotifyTokenInvalid;
  if (!queue || !handler) return NotifyStatus::nullInput;
  if (!isNotificationName(name)) return NotifyStatus::invalidName;
  if (NotificationCenter::shared().add(name, *token, queue, std::move(handler))) return NotifyStatus::ok;
  const int error = errno;
  QM_LOG_ERROR(notificationLog(), "Cannot observe %{public}s: %{public}s", std::string(name),
               std::strerror(error));
  return statusOf(error);
}

NotifyStatus notifyCancel(int token) {
  return NotificationCenter::shared().remove(token) ? NotifyStatus::ok : NotifyStatus::invalidToken;
}

NotifyStatus notifyPost(std::string_view name) {
  if (!isNotificationName(name)) return NotifyStatus::invalidName;
  if (!mayPost(name)) return NotifyStatus::notAuthorized;
  if (staysInProcess(name)) {
    NotificationCenter::shared().deliverHere(name);
    return NotifyStatus::ok;
  }
  if (replaceNotificationStamp(std::string(name))) return NotifyStatus::ok;
  const int error = errno;
  QM_LOG_ERROR(notificationLog(), "Cannot post %{public}s: %{public}s", std::string(name),
               std::strerror(error));
  return statusOf(error);
}

}  // namespace qm
