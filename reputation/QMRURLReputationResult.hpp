// The answer to a URL lookup: a score for each category, how long it holds, and the failure if there was one.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "foundation/block.hpp"
#include "foundation/error.hpp"
#include "foundation/property.hpp"
#include "foundation/value.hpp"

class QMRURLReputationResult {
 public:
  QMRURLReputationResult(qm::Dictionary categories, std::uint64_t ttl, qm::ErrorPtr error);

  // { "cats": { category name: score, ..., "safe": score } }
  qm::Dictionary categories() const { return categories_.get(); }
  void setCategories(qm::Dictionary categories) { categories_.set(std::move(categories)); }

  // How long the answer may be cached, in the backend's unit.
  std::uint64_t ttl() const { return ttl_.get(); }
  void setTtl(std::uint64_t ttl) { ttl_.set(ttl); }

  // Null when the lookup succeeded.
  qm::ErrorPtr error() const { return error_.get(); }
  void setError(qm::ErrorPtr error) { error_.set(std::move(error)); }

  // Categories: C, ttl: T, error: E
  std::string description() const;

 private:
  qm::Property<qm::Dictionary> categories_;
  qm::Property<std::uint64_t> ttl_;
  qm::Property<qm::ErrorPtr> error_;
};

namespace qm {

// How every URL lookup completes; the result is never null. Called on any thread.
using URLReputationCompletion = Block<void(const std::shared_ptr<const QMRURLReputationResult>& result)>;

}  // namespace qm
