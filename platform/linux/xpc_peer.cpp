#include "platform/linux/xpc_peer.hpp"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>

#include "platform/linux/process_identity.hpp"

namespace qm::xpc {
namespace {

// Linux 6.5; not in the C library's headers yet.
constexpr int kPeerProcessDescriptor = 77;  // SO_PEERPIDFD

constexpr std::uint32_t kUnset = UINT32_MAX;

// Immune to reuse of the process id: the kernel took it when the peer connected.
FileDescriptor processOfSocket(int socket) {
  int descriptor = FileDescriptor::kNone;
  socklen_t length = sizeof descriptor;
  if (::getsockopt(socket, SOL_SOCKET, kPeerProcessDescriptor, &descriptor, &length) != 0) return {};
  return FileDescriptor(descriptor);
}

FileDescriptor openProcess(pid_t process) {
  return process <= 0 ? FileDescriptor()
                      : FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
}

bool isRunning(const FileDescriptor& process) {
  pollfd entry{.fd = process.get(), .events = POLLIN, .revents = 0};
  return process && ::poll(&entry, 1, 0) == 0;
}

AuditToken tokenFromCredentials(const ucred& credentials) {
  AuditToken token;
  token.words = {kUnset,          credentials.uid,
                 credentials.gid, credentials.uid,
                 credentials.gid, static_cast<std::uint32_t>(credentials.pid),
                 kUnset,          0};
  return token;
}

}  // namespace

std::optional<Peer> peerOfSocket(int socket) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return std::nullopt;
  return peerFromCredentials(credentials, processOfSocket(socket));
}

Peer peerFromCredentials(const ucred& credentials, FileDescriptor process) {
  Peer peer{tokenFromCredentials(credentials), std::move(process)};
  if (!peer.process) peer.process = openProcess(credentials.pid);
  const std::optional<AuditToken> current = auditTokenOfProcess(credentials.pid);
  // Running still, after its files were read: so they were its own.
  if (!current || !isRunning(peer.process)) return peer;
  for (const std::size_t word : {0U, 3U, 4U, 6U, 7U}) peer.token.words[word] = current->words[word];
  return peer;
}

bool isSameProcess(const AuditToken& token, const ucred& credentials) {
  return credentials.pid == token.processID() &&
         (credentials.uid == token.words[3] || credentials.uid == token.effectiveUserID());
}

}  // namespace qm::xpc
