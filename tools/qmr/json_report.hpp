// One JSON object a line, for programs.
#pragma once

#include <ostream>

#include "tools/qmr/report.hpp"

namespace qm::qmr {

class JsonReport final : public Report {
 public:
  explicit JsonReport(std::ostream& output) : output_(output) {}
  void add(const ReputationAnswer& answer) override;

 private:
  std::ostream& output_;
};

}  // namespace qm::qmr
