// What one peer may cost the process. Whoever breaks one of the first group is disconnected with a log line;
// at one of the second group the socket is left unread until there is room again. docs/wire.md has the same
// numbers.
#pragma once

#include <chrono>
#include <cstddef>

namespace qm::xpc {

// The body of one frame, in bytes.
inline constexpr std::size_t kMaximumBodyBytes = 4 * 1024 * 1024;
// Arrays and dictionaries inside each other, the message itself included.
inline constexpr std::size_t kMaximumDepth = 64;
// Values in one message, containers included.
inline constexpr std::size_t kMaximumValues = 65536;
// What a received value counts for beside its bytes: it takes 64 to 224 bytes of memory, however short it is
// on the wire.
inline constexpr std::size_t kBytesPerValue = 128;
// Descriptors and endpoints of one message together.
inline constexpr std::size_t kMaximumDescriptors = 16;
// Bytes of memory for what waits for a peer that does not read.
inline constexpr std::size_t kMaximumQueuedBytes = 16 * 1024 * 1024;
// The descriptors among those: each stays open here until it has left.
inline constexpr std::size_t kMaximumQueuedDescriptors = 1024;
// From the listener's nonce to the client's answer.
inline constexpr std::chrono::seconds kHelloDeadline{10};
// From the first byte of a frame to its last, as long as the socket is read.
inline constexpr std::chrono::seconds kFrameDeadline{30};

// Requests without a reply and messages whose handler has not returned, of one peer.
inline constexpr std::size_t kMaximumHeldMessages = 1024;
// The bytes of those, and kBytesPerValue for each of their values. As long as a message was not looked into,
// it counts as if it had as many as it can.
inline constexpr std::size_t kMaximumHeldBytes = 16 * 1024 * 1024;
// The descriptors of what was received, each until all of its message are closed.
inline constexpr std::size_t kMaximumHeldDescriptors = 1024;
// Peers of one listener that are neither admitted nor refused; further ones wait in the kernel.
inline constexpr std::size_t kMaximumUndecidedPeers = 64;
// Those of them that are one user's. A quarter: users whose programs cannot be looked at (they lie on a file
// system that does not answer) leave places to the others until there are four of them, and more places would
// not serve one user faster, because only four programs of a user are looked at at a time
// (supervised_work.hpp).
inline constexpr std::size_t kMaximumUndecidedPeersPerUser = kMaximumUndecidedPeers / 4;
// Peers that wait because their user's share is taken, of one user and of all; further ones are refused. They
// were accepted, or nobody behind them in the kernel's queue would be: each costs two descriptors.
// A user with kMaximumClosingsBehind (disposal_lanes.hpp) gets no further place, and whichever of its
// connections brings another descriptor ends with that read, of 253 descriptors at most. With the 144 that
// may be undecided then and are admitted after all, that is 16,384 + 144 * (253 + 2) = 53,104 of the 65,536
// that a service may have open. Beside them are the descriptors of messages that are not handled yet, and the
// sockets of refused peers that had put what cannot be closed into them.
inline constexpr std::size_t kMaximumWaitingPeersPerUser = 128;
inline constexpr std::size_t kMaximumWaitingPeers = 512;
inline constexpr int kListenBacklog = 128;

// How long to wait when the system is out of descriptors or buffers before it is tried again.
inline constexpr std::chrono::milliseconds kAcceptPause{100};
inline constexpr std::chrono::milliseconds kSendPause{10};

}  // namespace qm::xpc
