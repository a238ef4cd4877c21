// Darwin notifications: a program posts a name, and whoever of the installation's programs has registered for
// that name is told that something has changed. Nothing else travels with it. All functions may be called
// from any thread, also from within a handler.
#pragma once

#include <cstdint>
#include <string_view>

#include "foundation/block.hpp"
#include "platform/queue.hpp"

namespace qm {

// The values of notify.h.
enum class NotifyStatus : std::uint32_t {
  ok = 0,
  invalidName = 1,
  invalidToken = 2,
  invalidPort = 3,
  invalidFile = 4,
  invalidSignal = 5,
  invalidRequest = 6,
  notAuthorized = 7,
  optDisable = 8,
  serverNotFound = 9,
  nullInput = 10,
  failed = 1000000,
};

// No registration; tokens are not negative.
inline constexpr int kNotifyTokenInvalid = -1;

// Runs the handler on the queue after every post from now on, own ones included. Several posts may be
// delivered as one, but none comes later than the start of the last delivery; when in doubt there is a
// delivery too many. Each call makes a registration with a token of its own, which is stored before the
// handler can run. The queue and the handler are kept until it is cancelled. Otherwise the token is
// kNotifyTokenInvalid and the status invalidName, nullInput (token, queue or handler), notAuthorized (not
// allowed to observe) or failed (no descriptor, no watch; the log has the reason).
//
// A name is UTF-8 text. Names that cannot name a file are invalid on Linux: empty, more than 255 bytes, with
// a slash or NUL, starting with a dot.
NotifyStatus notifyRegisterDispatch(std::string_view name, int* token, const Queue& queue,
                                    Block<void(int token)> handler);

// Ends a registration: no handler starts when this has returned, except for one that was just about to. One
// that runs is not waited for. invalidToken: there is none, or not any more.
NotifyStatus notifyCancel(int token);

// Posts, whether or not anybody has registered. notAuthorized: not the owner of the installation, or a
// reserved name ("com.apple.system." is root's, "user.uid.N." that user's and root's). Posts of "self." names
// stay in the process.
NotifyStatus notifyPost(std::string_view name);

}  // namespace qm
