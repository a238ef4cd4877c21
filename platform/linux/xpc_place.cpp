#include "platform/linux/xpc_place.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "platform/linux/run_folder.hpp"
#include "platform/linux/xpc_channel.hpp"
#include "platform/linux/xpc_frame.hpp"
#include "platform/linux/xpc_limits.hpp"
#include "platform/linux/xpc_socket.hpp"

namespace qm::xpc {
namespace {

constexpr const char* kServedByAnother = "another process serves it";

bool isServiceName(std::string_view name) {
  return !name.empty() && name.front() != '.' && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

std::string failure(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

struct InheritedSocket {
  int descriptor = FileDescriptor::kNone;
  std::string name;
};

// Sockets that the service manager passed (sd_listen_fds(3)), as long as no listener has them.
std::vector<InheritedSocket>& inheritedSockets() {
  static std::vector<InheritedSocket> sockets = [] {
    std::vector<InheritedSocket> result;
    char** names = nullptr;
    const int count = ::sd_listen_fds_with_names(0, &names);
    for (int i = 0; i < count; ++i) {
      const int descriptor = SD_LISTEN_FDS_START + i;
      if (::sd_is_socket_unix(descriptor, SOCK_STREAM, 1, nullptr, 0) > 0)
        result.push_back({descriptor, names[i]});
      else
        QM_LOG_ERROR(transportLog(),
                     "The service manager's “%{public}s” is no Unix stream socket that listens", names[i]);
      std::free(names[i]);
    }
    std::free(names);
    return result;
  }();
  return sockets;
}

FileDescriptor takeInheritedSocket(std::string_view serviceName) {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  std::vector<InheritedSocket>& sockets = inheritedSockets();
  if (sockets.empty()) return {};
  auto found = sockets.begin();
  for (auto candidate = sockets.begin(); candidate != sockets.end(); ++candidate)
    if (candidate->name == serviceName) found = candidate;
  FileDescriptor result(found->descriptor);
  sockets.erase(found);
  return result;
}

// The folder must be one in which nobody but its owner can put files under others' names.
bool prepareFolder(const std::string& folder, std::string& reason) {
  if (!makeRunFolder()) {
    reason = failure("cannot make " + folder);
    return false;
  }
  struct stat status {};
  if (::stat(folder.c_str(), &status) != 0) {
    reason = failure("cannot look at " + folder);
    return false;
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) == 0 && (status.st_uid == ::geteuid() || status.st_uid == 0))
    return true;
  reason = folder + " can be written by others";
  return false;
}

FileDescriptor lockFile(const std::string& path, std::string& reason) {
  FileDescriptor lock(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock) {
    reason = failure("cannot open " + path);
    return {};
  }
  if (::flock(lock.get(), LOCK_EX | LOCK_NB) == 0) return lock;
  reason = errno == EWOULDBLOCK ? kServedByAnother : failure("cannot lock " + path);
  return {};
}

// Bound aside and moved into its place when it listens, so that a client never meets a half-made socket.
FileDescriptor listenAt(const std::string& path, std::string& reason) {
  const std::string newPath = path + ".new";
  ::unlink(newPath.c_str());
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const auto address = SocketAddress::create(newPath);
  if (!socket || !address) {
    reason = failure("no socket address");
    return {};
  }
  if (!receiveCredentials(socket.get()) || ::bind(socket.get(), address->address(), address->length()) != 0) {
    reason = failure("cannot bind");
    return {};
  }
  if (::chmod(newPath.c_str(), 0666) == 0 && ::listen(socket.get(), kListenBacklog) == 0 &&
      ::rename(newPath.c_str(), path.c_str()) == 0)
    return socket;
  reason = failure("cannot listen");
  ::unlink(newPath.c_str());
  return {};
}

}  // namespace

Place::Place(FileDescriptor socket, FileDescriptor lock, std::string path)
    : socket_(std::move(socket)), lock_(std::move(lock)), path_(std::move(path)) {}

// The lock goes last: nobody else can have put a file of its own there.
Place::~Place() {
  if (socket_ && !path_.empty()) ::unlink(path_.c_str());
}

Place openPlace(const std::string& serviceName, std::string& reason) {
  if (!isServiceName(serviceName)) {
    reason = "no name for a service";
    return {};
  }
  if (FileDescriptor inherited = takeInheritedSocket(serviceName)) {
    const int flags = ::fcntl(inherited.get(), F_GETFL);
    if (flags < 0 || ::fcntl(inherited.get(), F_SETFL, flags | O_NONBLOCK) != 0 ||
        !receiveCredentials(inherited.get()))
      reason = failure("cannot take over the socket");
    else
      return Place(std::move(inherited), FileDescriptor(), std::string());
    return {};
  }
  const std::string folder = runFolder();
  if (!prepareFolder(folder, reason)) return {};
  const std::string path = folder + "/" + serviceName;
  FileDescriptor lock = lockFile(path + ".lock", reason);
  if (!lock) return {};
  // The service manager's socket has no lock.
  if (connectToService(serviceName) || errno == EAGAIN) {
    reason = kServedByAnother;
    return {};
  }
  FileDescriptor socket = listenAt(path, reason);
  if (!socket) return {};
  return Place(std::move(socket), std::move(lock), path);
}

FileDescriptor connectToService(const std::string& serviceName) {
  if (!isServiceName(serviceName)) {
    errno = ENOENT;
    return {};
  }
  const auto address = SocketAddress::create(runFolder() + "/" + serviceName);
  if (!address) return {};
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket || !receiveCredentials(socket.get())) return {};
  if (::connect(socket.get(), address->address(), address->length()) == 0) return socket;
  const int error = errno;
  socket.reset();
  errno = error;
  return {};
}

FileDescriptor connectThroughEndpoint(int endpoint) {
  std::optional<SocketPair> pair = makeSocketPair(SOCK_STREAM);
  if (!pair || !receiveCredentials(pair->first.get())) return {};
  std::uint8_t version = kWireVersion;
  iovec piece{.iov_base = &version, .iov_len = sizeof version};
  const int passed = pair->second.get();
  if (sendWithDescriptors(endpoint, std::span(&piece, 1), std::span(&passed, 1)) == sizeof version)
    return std::move(pair->first);
  const int error = errno;
  pair.reset();
  errno = error;
  return {};
}

}  // namespace qm::xpc
