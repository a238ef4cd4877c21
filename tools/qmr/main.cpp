// qmr, the command line of the reputation service.
#include <iostream>
#include <variant>

#include "client/reputation_client.hpp"
#include "settings/QMRNamespace.hpp"
#include "tools/qmr/check_command.hpp"
#include "tools/qmr/command_line.hpp"
#include "tools/qmr/ping_command.hpp"
#include "tools/qmr/settings_command.hpp"
#include "tools/qmr/url_command.hpp"

using namespace qm;
using namespace qm::qmr;

int main(int argumentCount, char** arguments) {
  Command command = parseCommandLine(argumentCount, arguments);
  if (const auto* end = std::get_if<EndAtOnce>(&command)) {
    (end->isError ? std::cerr : std::cout) << end->text << std::flush;
    return end->exitStatus;
  }
  if (const auto* settings = std::get_if<SettingsOptions>(&command))
    return runSettingsCommand(*settings, std::cout, std::cerr);
  if (auto* url = std::get_if<URLOptions>(&command)) return runURLCommand(std::move(*url));
  const std::string service = QMRNamespace::namespacedWithId(kReputationServiceName);
  if (auto* check = std::get_if<CheckOptions>(&command)) return runCheckCommand(std::move(*check), service);
  ReputationClientOptions options;
  options.serviceName = service;
  return runPing(std::get<PingOptions>(command), std::move(options), std::cout, std::cerr);
}
