// What an agent answers from in the installation it lies in: the verdict store, and the sample rules, which
// are followed as long as this lives.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "companions/companion_program.hpp"
#include "companions/live_sample_rules.hpp"
#include "companions/verdict_store.hpp"

namespace qm {

template <class Answers, class Options>
class InstalledAnswers {
 public:
  InstalledAnswers()
      : answers_(std::make_shared<Answers>(installedPath(kVerdictStoreProductPath), Options())),
        rules_(installedPath(kSampleRulesProductPath),
               [answers = answers_](std::shared_ptr<const SampleRules> compiled, std::int64_t changed) {
                 answers->setRules(std::move(compiled), changed);
               }) {
    answers_->prepare();
  }

  const std::shared_ptr<Answers>& get() const { return answers_; }

 private:
  const std::shared_ptr<Answers> answers_;
  const LiveSampleRules rules_;
};

}  // namespace qm
