// What the reputation lookup needs of a hash provider. Implemented by QMRHashProvider, and by substitutes in
// tests.
#pragma once

#include <memory>
#include <string>

#include "filefacts/QMRHashCacheEntry.hpp"
#include "foundation/error.hpp"

class QMRHashProviderProtocol {
 public:
  virtual ~QMRHashProviderProtocol() = default;

  // The hashes of the file at the path, or null with an error. Any thread.
  virtual std::shared_ptr<QMRHashCacheEntry> hashesForPath(const std::string& path,
                                                           qm::ErrorPtr* error = nullptr) = 0;
  // The next request for the path reads the file again.
  virtual void invalidateHashesForPath(const std::string& path) = 0;

  virtual std::string description() const = 0;
};
