#include "companions/installed_rules.hpp"

#include <string>

#include "companions/companion_program.hpp"
#include "foundation/log.hpp"

namespace qm {

namespace {

Log& log() {
  static Log& log = Log::create(kQMRLogSubsystem, "SampleRules");
  return log;
}

}  // namespace

std::shared_ptr<const SampleRules> loadInstalledRules() {
  const std::string folder = installedPath("/Library/Quillmarsh/qxmac/rules");
  ErrorPtr error;
  auto rules = SampleRules::compileFolder(folder, nullptr, &error);
  if (rules == nullptr)
    QM_LOG_ERROR(log(), "Samples cannot be examined: %{public}@", error);
  else if (rules->count() == 0)
    QM_LOG_ERROR(log(), "There are no sample rules in %{public}@, no sample is examined", folder);
  else
    QM_LOG(log(), "%zu sample rules from %{public}@", rules->count(), folder);
  return rules;
}

}  // namespace qm
