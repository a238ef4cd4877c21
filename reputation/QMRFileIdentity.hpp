// Which file it is, whatever its path: device and inode. Recognises the same file under two requests; a value
// that never changes, fit for a key.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "platform/file_io.hpp"

class QMRFileIdentity {
 public:
  QMRFileIdentity(std::int32_t deviceIdentifier, std::uint64_t inode)
      : deviceIdentifier_(deviceIdentifier), inode_(inode) {}

  static QMRFileIdentity identityFromStat(const qm::FileStatus& status);

  std::int32_t deviceIdentifier() const { return deviceIdentifier_; }
  std::uint64_t inode() const { return inode_; }

  // The device number, widened with its sign, exclusive-or the inode number.
  std::uint64_t hash() const;
  // [dev:DEVICE,inode:INODE]
  std::string description() const;

  friend bool operator==(const QMRFileIdentity&, const QMRFileIdentity&) = default;

 private:
  std::int32_t deviceIdentifier_;
  std::uint64_t inode_;
};

template <>
struct std::hash<QMRFileIdentity> {
  std::size_t operator()(const QMRFileIdentity& identity) const noexcept { return identity.hash(); }
};
