// qmr, the command line of the reputation service.
#include <iostream>
#include <utility>
#include <variant>

#include "client/reputation_client.hpp"
#include "platform/standard_descriptors.hpp"
#include "settings/QMRNamespace.hpp"
#include "tools/qmr/check_command.hpp"
#include "tools/qmr/command_line.hpp"
#include "tools/qmr/exit_status.hpp"
#include "tools/qmr/ping_command.hpp"
#include "tools/qmr/settings_command.hpp"
#include "tools/qmr/url_command.hpp"
#include "tools/standard_streams.hpp"

using namespace qm;
using namespace qm::qmr;

namespace {

// What a run over many things could not write it says itself.
int runCommand(Command command) {
  const std::string service = QMRNamespace::namespacedWithId(kReputationServiceName);
  if (auto* check = std::get_if<CheckOptions>(&command)) return runCheckCommand(std::move(*check), service);
  if (auto* url = std::get_if<URLOptions>(&command)) return runURLCommand(std::move(*url));
  int exitStatus = kNothingBad;
  if (const auto* end = std::get_if<EndAtOnce>(&command)) {
    (end->isError ? std::cerr : std::cout) << end->text;
    exitStatus = end->exitStatus;
  } else if (const auto* settings = std::get_if<SettingsOptions>(&command)) {
    exitStatus = runSettingsCommand(*settings, std::cout, std::cerr);
  } else {
    ReputationClientOptions options;
    options.serviceName = service;
    exitStatus = runPing(std::get<PingOptions>(command), std::move(options), std::cout, std::cerr);
  }
  return tools::endOutput("qmr", exitStatus);
}

}  // namespace

int main(int argumentCount, char** arguments) {
  occupyClosedStandardDescriptors();
  return runCommand(parseCommandLine(argumentCount, arguments));
}
