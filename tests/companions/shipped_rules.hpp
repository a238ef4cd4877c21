// The sample rules that an installation begins with.
#pragma once

#include "companions/sample_rules.hpp"
#include "support/testing.hpp"

namespace qm::test {

inline std::shared_ptr<const SampleRules> shippedRules() {
  std::vector<RejectedRules> rejected;
  auto rules = SampleRules::compile(SampleRules::readFolder(QM_RULES_FOLDER, rejected), &rejected);
  EXPECT_TRUE(rejected.empty());
  return rules;
}

}  // namespace qm::test
