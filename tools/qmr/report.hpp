// Where the answers go: one row or line for each. Made for one thread at a time.
#pragma once

#include "client/reputation_answer.hpp"

namespace qm::qmr {

class Report {
 public:
  virtual ~Report() = default;
  // Written out when it returns.
  virtual void add(const ReputationAnswer& answer) = 0;
};

}  // namespace qm::qmr
