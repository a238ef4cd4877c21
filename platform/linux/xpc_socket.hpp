// Reading and writing a Unix socket with the descriptors and credentials that travel beside the bytes. Never
// blocks, whatever mode the socket is in: its other holders could change that.
#pragma once

#include <sys/socket.h>
#include <sys/uio.h>

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/file_descriptor.hpp"
#include "platform/linux/xpc_disposal.hpp"

namespace qm::xpc {

struct Received {
  ssize_t length = 0;  // 0: the end; -1: nothing, error says why
  int error = 0;
  bool isTruncated = false;                   // control data or, with packets, bytes were lost
  std::vector<PassedDescriptor> descriptors;  // they are the sender's
  std::optional<ucred> sender;
  FileDescriptor process;  // pidfd of the sender, where the kernel gives one
};

// Every descriptor that arrives is owned before anything is looked at.
Received receive(int socket, std::span<std::uint8_t> buffer);

// The bytes written, or -1 with errno set. The descriptors, at most 253, go with the first byte.
ssize_t sendWithDescriptors(int socket, std::span<iovec> pieces, std::span<const int> descriptors);

// From now on the kernel adds the sender's credentials to what arrives; false with errno set.
bool receiveCredentials(int socket);
// The same for a descriptor of the sender's process; false on a kernel that has none to give.
bool receiveProcess(int socket);

// Whether it is a Unix socket of that type (SOCK_STREAM and the like).
bool isUnixSocket(int descriptor, int type);

struct SocketPair {
  FileDescriptor first;
  FileDescriptor second;
};
// Connected, close-on-exec; nothing with errno set.
std::optional<SocketPair> makeSocketPair(int type);

}  // namespace qm::xpc
