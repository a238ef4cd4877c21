// The table for people: a verdict's facts in columns, the path last and never shortened.
#pragma once

#include <ostream>

#include "tools/qmr/report.hpp"

namespace qm::qmr {

struct TableStyle {
  bool colour = false;
  bool answerColumn = false;  // tells replies from delayed answers
};

class TableReport final : public Report {
 public:
  TableReport(std::ostream& output, TableStyle style) : output_(output), style_(style) {}
  void add(const ReputationAnswer& answer) override;

 private:
  void writeHeader();

  std::ostream& output_;
  const TableStyle style_;
  bool headerWritten_ = false;
};

}  // namespace qm::qmr
