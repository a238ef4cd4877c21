#include "bench/daemon_wire.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "platform/linux/run_folder.hpp"
#include "platform/linux/xpc_frame.hpp"
#include "platform/linux/xpc_socket.hpp"

namespace qm::bench {
namespace {

constexpr std::chrono::microseconds kRetryPause{200};
constexpr std::chrono::seconds kServicePatience{30};

}  // namespace

void failWithErrno(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

FileDescriptor openFile(const std::string& path) {
  FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) failWithErrno(path);
  return file;
}

FileDescriptor connectWhenThere(const std::string& path, int type) {
  const auto address = SocketAddress::create(path);
  if (!address) failWithErrno(path);
  const auto deadline = std::chrono::steady_clock::now() + kServicePatience;
  for (;;) {
    FileDescriptor socket(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    if (!socket) failWithErrno("socket");
    if (::connect(socket.get(), address->address(), address->length()) == 0) return socket;
    const bool isEarly = errno == ENOENT || errno == ECONNREFUSED;
    if (!isEarly || std::chrono::steady_clock::now() > deadline) failWithErrno(path);
    std::this_thread::sleep_for(kRetryPause);
  }
}

FileDescriptor admittedConnection(const std::string& socketPath) {
  FileDescriptor socket = connectWhenThere(socketPath, SOCK_STREAM);
  const timeval patience{.tv_sec = kServicePatience.count(), .tv_usec = 0};
  ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  std::array<std::uint8_t, xpc::kHeaderBytes + xpc::kNonceBytes> handshake{};
  if (::recv(socket.get(), handshake.data(), handshake.size(), MSG_WAITALL) !=
      static_cast<ssize_t>(handshake.size()))
    throw std::runtime_error("the service does not admit this program");
  constexpr timeval forEver{};
  ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &forEver, sizeof forEver);
  xpc::writeHeader({.bodyBytes = xpc::kNonceBytes, .kind = xpc::FrameKind::hello}, handshake.data());
  sendWhole(socket.get(), handshake, {});
  return socket;
}

XPCDictionary requestAbout(const std::string& path, const FileDescriptor& file) {
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) failWithErrno(path);
  XPCDictionary request = XPCDictionary::create();
  request.setBool("FileReputationRequest", true);
  request.setString("filename", path);
  request.setInt64("filesize", status.st_size);
  request.setUInt64("uid", ::getuid());
  request.setValue("filedescriptor", XPCObject::fileDescriptor(file.get()));
  return request;
}

void sendWhole(int socket, std::span<std::uint8_t> bytes, std::span<const int> descriptors) {
  iovec piece{.iov_base = bytes.data(), .iov_len = bytes.size()};
  if (xpc::sendWithDescriptors(socket, std::span(&piece, 1), descriptors) !=
      static_cast<ssize_t>(bytes.size()))
    failWithErrno("the service does not read");
}

std::optional<std::span<const std::uint8_t>> readSome(int socket, std::span<std::uint8_t> buffer) {
  const ssize_t count = ::recv(socket, buffer.data(), buffer.size(), 0);
  if (count < 0 && (errno == EINTR || errno == EAGAIN)) return std::nullopt;
  if (count < 0) failWithErrno("recv");
  if (count == 0) throw std::runtime_error("the service ended the connection");
  return buffer.first(static_cast<std::size_t>(count));
}

}  // namespace qm::bench
