#include "platform/notify.hpp"

#include <notify.h>

#include <string>
#include <utility>

#include "platform/darwin/queue_core.hpp"

namespace qm {

NotifyStatus notifyRegisterDispatch(std::string_view name, int* token, const Queue& queue,
                                    Block<void(int token)> handler) {
  if (token == nullptr) return NotifyStatus::nullInput;
  *token = kNotifyTokenInvalid;
  if (!queue || !handler) return NotifyStatus::nullInput;
  // A NUL would silently end the name.
  if (name.empty() || name.find('\0') != std::string_view::npos) return NotifyStatus::invalidName;
  const auto status = static_cast<NotifyStatus>(
      ::notify_register_dispatch(std::string(name).c_str(), token, dispatchQueue(queue), ^(int itsToken) {
        handler(itsToken);
      }));
  if (status != NotifyStatus::ok) *token = kNotifyTokenInvalid;
  return status;
}

NotifyStatus notifyCancel(int token) {
  return static_cast<NotifyStatus>(::notify_cancel(token));
}

NotifyStatus notifyPost(std::string_view name) {
  if (name.empty() || name.find('\0') != std::string_view::npos) return NotifyStatus::invalidName;
  return static_cast<NotifyStatus>(::notify_post(std::string(name).c_str()));
}

}  // namespace qm
