// The hashes of one file, as a request carries them to the backends.
#pragma once

#include <optional>
#include <string>

#include "foundation/property.hpp"
#include "foundation/value.hpp"

class QMRHashCacheEntry {
 public:
  // The path the entry belongs to. The provider does not fill it.
  std::optional<std::string> path() const { return path_.get(); }
  void setPath(std::optional<std::string> path) { path_.set(std::move(path)); }

  // 20 bytes, of the whole content.
  std::optional<qm::Data> sha1() const { return sha1_.get(); }
  void setSha1(std::optional<qm::Data> sha1) { sha1_.set(std::move(sha1)); }

  // 32 bytes, of the whole content.
  std::optional<qm::Data> sha256() const { return sha256_.get(); }
  void setSha256(std::optional<qm::Data> sha256) { sha256_.set(std::move(sha256)); }

  // The first 16 bytes of the file, all of it when it is shorter; nothing for hashes of a memory buffer.
  std::optional<qm::Data> magicBytes() const { return magicBytes_.get(); }
  void setMagicBytes(std::optional<qm::Data> magicBytes) { magicBytes_.set(std::move(magicBytes)); }

  // <QMRHashCacheEntry: sha1: HEX sha256: HEX>
  std::string description() const;

 private:
  qm::Property<std::optional<std::string>> path_;
  qm::Property<std::optional<qm::Data>> sha1_;
  qm::Property<std::optional<qm::Data>> sha256_;
  qm::Property<std::optional<qm::Data>> magicBytes_;
};
