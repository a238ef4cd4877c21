// A descriptor that cannot be closed, as one of a file on a file system that does not answer. Link
// qm_platform for it.
#pragma once

#include <netinet/in.h>

#include <vector>

#include "platform/file_descriptor.hpp"
#include "support/testing.hpp"

namespace qm::test {

// A socket whose last holder does not come back from close(2) before the test takes the other end away.
struct LingeringSocket {
  LingeringSocket() {
    const FileDescriptor listening(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(::bind(listening.get(), any, length), 0);
    EXPECT_EQ(::listen(listening.get(), 1), 0);
    EXPECT_EQ(::getsockname(listening.get(), any, &length), 0);
    EXPECT_EQ(::connect(socket.get(), any, length), 0);
    otherEnd.reset(::accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    const linger anHour{.l_onoff = 1, .l_linger = 3600};
    EXPECT_EQ(::setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &anHour, sizeof anHour), 0);
    const std::vector<std::uint8_t> unread(64 * 1024);
    while (::send(socket.get(), unread.data(), unread.size(), MSG_DONTWAIT) > 0) continue;
  }
  FileDescriptor socket{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  FileDescriptor otherEnd;
};

}  // namespace qm::test
