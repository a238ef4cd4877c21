#include "filefacts/QMRHashCacheEntry.hpp"

#include "filefacts/QMRHashProvider.hpp"
#include "platform/digest.hpp"

std::string QMRHashCacheEntry::description() const {
  const std::optional<qm::Data> sha1Data = sha1();
  const std::optional<qm::Data> sha256Data = sha256();
  // An entry whose digests were not set yet, or not to their length, has no text for them.
  const bool hasSha1 = sha1Data && sha1Data->length() == qm::SHA1Value().size();
  const bool hasSha256 = sha256Data && sha256Data->length() == qm::SHA256Value().size();
  return "<QMRHashCacheEntry: sha1: " +
         QMRHashProvider::sha1StringForBuffer(hasSha1 ? sha1Data->bytes() : nullptr) +
         " sha256: " + QMRHashProvider::sha256StringForBuffer(hasSha256 ? sha256Data->bytes() : nullptr) +
         ">";
}
