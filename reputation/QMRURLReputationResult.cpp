#include "reputation/QMRURLReputationResult.hpp"

#include <utility>

QMRURLReputationResult::QMRURLReputationResult(qm::Dictionary categories, std::uint64_t ttl,
                                               qm::ErrorPtr error) {
  setCategories(std::move(categories));
  setTtl(ttl);
  setError(std::move(error));
}

std::string QMRURLReputationResult::description() const {
  const qm::ErrorPtr failure = error();
  return "Categories: " + qm::description(categories()) + ", ttl: " + std::to_string(ttl()) +
         ", error: " + (failure ? failure->description() : "(null)");
}
