#include "reputation/QMRFileIdentity.hpp"

QMRFileIdentity QMRFileIdentity::identityFromStat(const qm::FileStatus& status) {
  return QMRFileIdentity(status.device, status.inode);
}

std::uint64_t QMRFileIdentity::hash() const {
  return static_cast<std::uint64_t>(std::int64_t{deviceIdentifier_}) ^ inode_;
}

std::string QMRFileIdentity::description() const {
  return "[dev:" + std::to_string(deviceIdentifier_) + ",inode:" + std::to_string(inode_) + "]";
}
