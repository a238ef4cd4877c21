// Who is at the other end of a socket.
#pragma once

#include <sys/socket.h>

#include <optional>

#include "platform/audit_token.hpp"
#include "platform/file_descriptor.hpp"

namespace qm::xpc {

struct Peer {
  AuditToken token;
  // Of pidfd_open(2), readable once the process has ended. Empty when there is none.
  FileDescriptor process;
};

// Whoever connected the socket, as it was at that moment. What is no longer to be found out (the process has
// ended): the real users are the effective ones, audit user and session unset, the start time 0. Nothing,
// with errno set, when the socket has no peer.
std::optional<Peer> peerOfSocket(int socket);

// The sender of a message whose credentials were received. The descriptor may be empty.
Peer peerFromCredentials(const ucred& credentials, FileDescriptor process);

// The credentials are those of the token's process, with its real or effective user.
bool isSameProcess(const AuditToken& token, const ucred& credentials);

}  // namespace qm::xpc
