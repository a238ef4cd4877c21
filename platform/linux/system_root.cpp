#include "platform/system_root.hpp"

#include <unistd.h>

#include <array>
#include <climits>
#include <cstddef>

#include "platform/linux/system_root.hpp"

namespace qm {
namespace {

// Cuts the last component off the path and returns it.
std::string_view takeLastComponent(std::string_view& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return {};
  const std::string_view component = path.substr(slash + 1);
  path = path.substr(0, slash);
  return component;
}

bool isProductFolder(std::string_view name) {
  constexpr std::string_view kNamespacedPrefix = "Quillmarsh-";
  return name == "Quillmarsh" ||
         (name.starts_with(kNamespacedPrefix) && name.size() > kNamespacedPrefix.size());
}

std::string readOwnProgramPath() {
  std::array<char, PATH_MAX> target{};
  const ssize_t length = ::readlink("/proc/self/exe", target.data(), target.size());
  return length <= 0 ? std::string() : std::string(target.data(), static_cast<std::size_t>(length));
}

}  // namespace

std::string programRoot(std::string_view programPath) {
  std::string_view rest = programPath;
  const bool isInstalled = !takeLastComponent(rest).empty() && takeLastComponent(rest) == "bin" &&
                           takeLastComponent(rest) == "qxmac" && isProductFolder(takeLastComponent(rest)) &&
                           takeLastComponent(rest) == "Library";
  return isInstalled && !rest.empty() ? std::string(rest) : "/";
}

const std::string& ownProgramPath() {
  static const std::string path = readOwnProgramPath();
  return path;
}

const std::string& systemRoot() {
  static const std::string root = programRoot(ownProgramPath());
  return root;
}

std::string hostPath(std::string_view productPath) {
  if (systemRoot() == "/" || !productPath.starts_with('/')) return std::string(productPath);
  return systemRoot() + std::string(productPath);
}

}  // namespace qm
