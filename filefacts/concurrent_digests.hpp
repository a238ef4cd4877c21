// Both digests of a file that is read in portions; the SHA-1 of a portion may be computed on another thread
// while the caller computes its SHA-256 and reads the next one.
#pragma once

#include <cstddef>
#include <memory>

#include "platform/digest.hpp"

namespace qm {

// One thread at a time calls it. What has no thread to run on yet when its result is needed is done by the
// caller, so it never waits for anybody's turn.
class ConcurrentDigests {
 public:
  ConcurrentDigests();
  ~ConcurrentDigests();
  ConcurrentDigests(const ConcurrentDigests&) = delete;
  ConcurrentDigests& operator=(const ConcurrentDigests&) = delete;

  void update(const void* bytes, std::size_t length);
  // On two threads. The bytes stay as they are until the next call of any function or the end of this object.
  void updateConcurrently(const void* bytes, std::size_t length);
  // Once, after the last update.
  void finish(SHA1Value& sha1, SHA256Value& sha256);

 private:
  class Shared;
  const std::shared_ptr<Shared> shared_;
};

}  // namespace qm
