#include "platform/linux/xpc_socket.hpp"

#include <array>
#include <cerrno>
#include <cstring>

namespace qm::xpc {
namespace {

// The most the kernel lets one message carry (SCM_MAX_FD, unix(7)): a buffer for fewer would lose some
// unseen.
constexpr std::size_t kMaximumCarried = 253;

// Linux 6.5; not in the C library's headers yet.
constexpr int kPassProcessDescriptor = 76;  // SO_PASSPIDFD
constexpr int kProcessDescriptor = 0x04;    // SCM_PIDFD

struct alignas(cmsghdr) ControlBuffer {
  std::array<unsigned char, CMSG_SPACE(kMaximumCarried * sizeof(int)) + CMSG_SPACE(sizeof(ucred)) +
                                CMSG_SPACE(sizeof(int)) + 256>
      bytes;
};

void adoptDescriptors(const cmsghdr* header, std::vector<FileDescriptor>& descriptors) {
  const std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
  descriptors.reserve(descriptors.size() + count);
  for (std::size_t i = 0; i < count; ++i) {
    int descriptor = FileDescriptor::kNone;
    std::memcpy(&descriptor, CMSG_DATA(header) + i * sizeof descriptor, sizeof descriptor);
    descriptors.emplace_back(descriptor);
  }
}

void adopt(msghdr& message, Received& result) {
  std::vector<FileDescriptor> descriptors;
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr; header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level != SOL_SOCKET) continue;
    if (header->cmsg_type == SCM_RIGHTS) {
      adoptDescriptors(header, descriptors);
    } else if (header->cmsg_type == SCM_CREDENTIALS && header->cmsg_len == CMSG_LEN(sizeof(ucred))) {
      ucred sender{};
      std::memcpy(&sender, CMSG_DATA(header), sizeof sender);
      result.sender = sender;
    } else if (header->cmsg_type == kProcessDescriptor && header->cmsg_len == CMSG_LEN(sizeof(int))) {
      int descriptor = FileDescriptor::kNone;
      std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
      if (descriptor >= 0) result.process.reset(descriptor);
    }
  }
  const auto userID = result.sender ? std::optional<std::uint32_t>(result.sender->uid) : std::nullopt;
  for (FileDescriptor& descriptor : descriptors)
    result.descriptors.emplace_back(std::move(descriptor), userID);
}

}  // namespace

Received receive(int socket, std::span<std::uint8_t> buffer) {
  iovec piece{.iov_base = buffer.data(), .iov_len = buffer.size()};
  ControlBuffer control;
  msghdr message{};
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  message.msg_control = control.bytes.data();
  message.msg_controllen = control.bytes.size();

  Received result;
  do result.length = ::recvmsg(socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  while (result.length < 0 && errno == EINTR);
  if (result.length < 0) {
    result.error = errno;
    return result;
  }
  adopt(message, result);
  result.isTruncated = (message.msg_flags & (MSG_CTRUNC | MSG_TRUNC)) != 0;
  return result;
}

ssize_t sendWithDescriptors(int socket, std::span<iovec> pieces, std::span<const int> descriptors) {
  ControlBuffer control;
  msghdr message{};
  message.msg_iov = pieces.data();
  message.msg_iovlen = pieces.size();
  if (!descriptors.empty()) {
    std::memset(control.bytes.data(), 0, CMSG_SPACE(descriptors.size_bytes()));
    message.msg_control = control.bytes.data();
    message.msg_controllen = CMSG_SPACE(descriptors.size_bytes());
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(descriptors.size_bytes());
    std::memcpy(CMSG_DATA(header), descriptors.data(), descriptors.size_bytes());
  }
  ssize_t written = 0;
  do written = ::sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
  while (written < 0 && errno == EINTR);
  return written;
}

bool receiveCredentials(int socket) {
  const int on = 1;
  return ::setsockopt(socket, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) == 0;
}

bool receiveProcess(int socket) {
  const int on = 1;
  return ::setsockopt(socket, SOL_SOCKET, kPassProcessDescriptor, &on, sizeof on) == 0;
}

bool isUnixSocket(int descriptor, int type) {
  int domain = 0;
  int actual = 0;
  socklen_t length = sizeof domain;
  return ::getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 && domain == AF_UNIX &&
         ::getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &actual, &length) == 0 && actual == type;
}

std::optional<SocketPair> makeSocketPair(int type) {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) != 0) return std::nullopt;
  return SocketPair{FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

}  // namespace qm::xpc
