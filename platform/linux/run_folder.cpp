#include "platform/linux/run_folder.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "platform/linux/system_root.hpp"

namespace qm {
namespace {

// One byte of the address is left for the NUL at its end.
constexpr std::size_t kMaximumAddressPath = sizeof(sockaddr_un::sun_path) - 1;

}  // namespace

std::string runFolder() {
  return runFolder(systemRoot());
}

std::string runFolder(std::string_view root) {
  return (root == "/" ? std::string() : std::string(root)) + "/run/quillmarsh";
}

bool makeSharedFolder(const std::string& path) {
  constexpr mode_t kMode = 0755;
  if (::mkdir(path.c_str(), kMode) != 0) return errno == EEXIST;
  const FileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return folder && ::fchmod(folder.get(), kMode) == 0;
}

bool makeRunFolder() {
  const std::string folder = runFolder();
  return makeSharedFolder(folder.substr(0, folder.rfind('/'))) && makeSharedFolder(folder);
}

std::optional<SocketAddress> SocketAddress::create(const std::string& path) {
  if (path.empty()) {
    errno = EINVAL;
    return std::nullopt;
  }
  if (path.size() <= kMaximumAddressPath) return SocketAddress(FileDescriptor(), path);

  const std::size_t slash = path.rfind('/');
  const std::string folderPath = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  FileDescriptor folder(::open(folderPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!folder) return std::nullopt;
  const std::string shortPath = "/proc/self/fd/" + std::to_string(folder.get()) + "/" + name;
  if (shortPath.size() > kMaximumAddressPath) {
    errno = ENAMETOOLONG;
    return std::nullopt;
  }
  return SocketAddress(std::move(folder), shortPath);
}

SocketAddress::SocketAddress(FileDescriptor folder, std::string_view path) : folder_(std::move(folder)) {
  address_.sun_family = AF_UNIX;
  std::memcpy(address_.sun_path, path.data(), path.size());
}

const sockaddr* SocketAddress::address() const {
  return reinterpret_cast<const sockaddr*>(&address_);
}

socklen_t SocketAddress::length() const {
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(address_.sun_path) + 1);
}

}  // namespace qm
