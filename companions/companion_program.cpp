#include "companions/companion_program.hpp"

#include "platform/file_io.hpp"
#include "platform/system_root.hpp"
#include "platform/user.hpp"
#include "settings/QMRNamespace.hpp"

namespace qm {

std::string installedPath(std::string_view productPath) {
  return hostPath(QMRNamespace::namespacedWithPath(productPath));
}

std::uint32_t ownerOfInstallation() {
  FileStatus status;
  const std::string folder = installedPath("/Library/Quillmarsh/qxmac");
  return statPath(folder.c_str(), status) ? status.owner : currentUserID();
}

}  // namespace qm
