// The floor: the least that a server can do which is passed open files over a Unix socket and answers. Each
// packet brings one; it is read and digested (SHA-1 and SHA-256, as the daemon must to ask a backend), or not
// even that, and the answer goes back from the thread that took it. No admission, no limits, no backend, no
// second connection.
//
//   load_floor SOCKET pass|digest [THREADS]
#include <openssl/evp.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <thread>
#include <vector>

#include "bench/load/floor_packets.hpp"
#include "platform/file_descriptor.hpp"
#include "platform/linux/run_folder.hpp"

namespace {

using qm::load::FloorAnswer;
using qm::load::FloorQuestion;

constexpr std::size_t kReadPortion = 128 * 1024;

// Of one thread: nothing of it is made again for a file.
class Digester {
 public:
  std::uint64_t digest(int file) {
    EVP_DigestInit_ex2(first_.get(), sha1_.get(), nullptr);
    EVP_DigestInit_ex2(second_.get(), sha256_.get(), nullptr);
    ssize_t count = 0;
    for (off_t at = 0; (count = ::pread(file, buffer_.data(), buffer_.size(), at)) > 0; at += count) {
      EVP_DigestUpdate(first_.get(), buffer_.data(), static_cast<std::size_t>(count));
      EVP_DigestUpdate(second_.get(), buffer_.data(), static_cast<std::size_t>(count));
    }
    std::array<std::uint8_t, 2 * EVP_MAX_MD_SIZE> digests{};
    EVP_DigestFinal_ex(first_.get(), digests.data(), nullptr);
    EVP_DigestFinal_ex(second_.get(), digests.data() + EVP_MAX_MD_SIZE, nullptr);
    return digests[0] ^ digests[EVP_MAX_MD_SIZE];
  }

 private:
  struct Free {
    void operator()(EVP_MD* method) const { EVP_MD_free(method); }
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  };
  const std::unique_ptr<EVP_MD, Free> sha1_{EVP_MD_fetch(nullptr, "SHA1", nullptr)};
  const std::unique_ptr<EVP_MD, Free> sha256_{EVP_MD_fetch(nullptr, "SHA256", nullptr)};
  const std::unique_ptr<EVP_MD_CTX, Free> first_{EVP_MD_CTX_new()};
  const std::unique_ptr<EVP_MD_CTX, Free> second_{EVP_MD_CTX_new()};
  std::vector<std::uint8_t> buffer_ = std::vector<std::uint8_t>(kReadPortion);
};

// Nothing passed: -1.
int passedDescriptor(msghdr& message) {
  const cmsghdr* const rights = CMSG_FIRSTHDR(&message);
  int descriptor = -1;
  if (rights != nullptr && rights->cmsg_type == SCM_RIGHTS)
    std::memcpy(&descriptor, CMSG_DATA(rights), sizeof descriptor);
  return descriptor;
}

// Until the client goes.
void answer(int connection, bool digests) {
  Digester digester;
  FloorQuestion question{};
  iovec piece{.iov_base = &question, .iov_len = sizeof question};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  for (;;) {
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    if (::recvmsg(connection, &message, MSG_CMSG_CLOEXEC) != sizeof question) return;
    const qm::FileDescriptor file(passedDescriptor(message));
    const FloorAnswer reply{.identifier = question.identifier,
                            .verdict = digests ? digester.digest(file.get()) : 0};
    if (::send(connection, &reply, sizeof reply, MSG_NOSIGNAL) != sizeof reply) return;
  }
}

std::size_t usableProcessors() {
  cpu_set_t processors;
  CPU_ZERO(&processors);
  ::sched_getaffinity(0, sizeof processors, &processors);
  return static_cast<std::size_t>(CPU_COUNT(&processors));
}

// The threads take turns on one connection.
void serve(qm::FileDescriptor connection, bool digests, std::size_t count) {
  std::vector<std::thread> threads(count);
  for (std::thread& thread : threads)
    thread = std::thread([socket = connection.get(), digests] { answer(socket, digests); });
  for (std::thread& thread : threads) thread.join();
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 3 || count > 4)
    return std::fputs("usage: load_floor SOCKET pass|digest [THREADS]\n", stderr), 2;
  const std::size_t threads = count == 4 ? std::strtoul(arguments[3], nullptr, 10) : usableProcessors();
  const bool digests = std::string_view(arguments[2]) == "digest";
  const auto address = qm::SocketAddress::create(arguments[1]);
  const qm::FileDescriptor listening(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  ::unlink(arguments[1]);
  if (!address || ::bind(listening.get(), address->address(), address->length()) != 0 ||
      ::listen(listening.get(), SOMAXCONN) != 0)
    return std::perror(arguments[1]), EXIT_FAILURE;
  for (;;) {
    qm::FileDescriptor connection(::accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection) return std::perror("accept"), EXIT_FAILURE;
    std::thread([connection = std::move(connection), digests, threads]() mutable {
      serve(std::move(connection), digests, threads);
    }).detach();
  }
}
