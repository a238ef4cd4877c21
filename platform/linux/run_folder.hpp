// Where the running program's installation has its run-time files, and Unix socket addresses for paths of any
// length. For the Linux platform layer and for what starts staged programs.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <optional>
#include <string>
#include <string_view>

#include "platform/file_descriptor.hpp"

namespace qm {

// R/run/quillmarsh with R the system root.
std::string runFolder();
// The run folder of an installation below that root.
std::string runFolder(std::string_view root);

// Makes a folder that all may read and only its owner may write (0755), whatever the umask. True also when
// there is something of that name; false with errno set.
[[nodiscard]] bool makeSharedFolder(const std::string& path);
// Makes the run folder of the running program and the folder it lies in.
[[nodiscard]] bool makeRunFolder();

// A Unix socket address. A path longer than the 107 bytes that fit into one goes through /proc/self/fd/N/name
// with N the folder that holds the socket: keep the object until bind(2) or connect(2) has returned.
class SocketAddress {
 public:
  // Nothing with errno set when the folder of a long path cannot be opened, or even the name is too long
  // (ENAMETOOLONG).
  static std::optional<SocketAddress> create(const std::string& path);

  const sockaddr* address() const;
  socklen_t length() const;

 private:
  SocketAddress(FileDescriptor folder, std::string_view path);

  FileDescriptor folder_;
  sockaddr_un address_{};
};

}  // namespace qm
