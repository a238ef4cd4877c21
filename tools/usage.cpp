#include "tools/usage.hpp"

#include <iostream>
#include <optional>
#include <sstream>
#include <vector>

namespace qm::tools {
namespace {

constexpr int kBadUsage = 2;

// The library only says that a command is required, whatever stands in its place.
std::optional<std::string> unknownWord(const CLI::App& application) {
  const CLI::App* innermost = &application;
  while (!innermost->get_subcommands().empty()) innermost = innermost->get_subcommands().front();
  const std::vector<std::string> words = application.remaining(true);
  if (innermost->get_require_subcommand_min() == 0 || words.empty()) return std::nullopt;
  const std::string& word = words.front();
  return "\"" + word + "\" is no " + (word.starts_with('-') ? "option" : "command");
}

}  // namespace

UsageEnd endOfUsage(const CLI::App& application, const CLI::ParseError& error) {
  std::ostringstream output;
  std::ostringstream errors;
  if (application.exit(error, output, errors) == 0) return {.text = output.str()};
  const std::optional<std::string> unknown = unknownWord(application);
  const std::string reason = unknown ? *unknown + "\nRun with --help for more information.\n" : errors.str();
  return {.text = application.get_name() + ": " + reason, .isError = true};
}

int printUsage(const CLI::App& application, const CLI::ParseError& error) {
  const UsageEnd end = endOfUsage(application, error);
  (end.isError ? std::cerr : std::cout) << end.text;
  return end.isError ? kBadUsage : 0;
}

}  // namespace qm::tools
