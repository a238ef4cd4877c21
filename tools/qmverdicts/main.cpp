// qmverdicts: looks at and edits the verdict store that the Skyvault agent answers from.
//
// Exit status: 0 done, 1 something asked for is not in the store or a part of an import was skipped, 2 it
// could not be done (nothing was changed then, but for the finished part of an import or of the removal of a
// source) or its output not be written.

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/SVKSkyvaultServiceClientProtocol.hpp"
#include "platform/standard_descriptors.hpp"
#include "platform/system_root.hpp"
#include "settings/QMRNamespace.hpp"
#include "tools/qmverdicts/file_commands.hpp"
#include "tools/qmverdicts/import_command.hpp"
#include "tools/qmverdicts/url_commands.hpp"
#include "tools/standard_streams.hpp"
#include "tools/usage.hpp"

namespace {

using namespace qm::qmverdicts;

void addStoreOptions(CLI::App& app, Options& options) {
  app.require_subcommand(1);
  app.fallthrough();
  app.add_option("--store", options.store, "The store's file")->type_name("PATH")->capture_default_str();
  app.set_version_flag("--version", std::string("qmverdicts ") + QM_PRODUCT_VERSION);
}

// What a verdict is made of; returns the option of the verdict itself.
CLI::Option* addVerdictOptions(CLI::App* command, Options& options) {
  const std::vector<std::string> verdicts = {
      SVKSkyvaultSafetyVerdictValueKnownClean, SVKSkyvaultSafetyVerdictValueUndetected,
      SVKSkyvaultSafetyVerdictValuePU,         SVKSkyvaultSafetyVerdictValueUnwanted,
      SVKSkyvaultSafetyVerdictValueMalicious,  SVKSkyvaultSafetyVerdictValueUnknown};
  command->add_option("--name", options.name, "Infection name");
  command->add_option("--prevalence", options.prevalence, "How common it is, 0 to 255")
      ->check(CLI::Range(0U, 255U))
      ->capture_default_str();
  command->add_option("--ttl", options.ttl, "Seconds an answer may be kept")
      ->check(CLI::Range(std::int64_t{0}, std::int64_t{UINT32_MAX}))
      ->capture_default_str();
  return command->add_option("--verdict", options.verdict, "What is known about it")
      ->check(CLI::IsMember(verdicts));
}

void addCategoryOption(CLI::App* command, Options& options) {
  command->add_option("--category", options.categories, "A category; with =0, one that it is not of")
      ->type_name("NAME[=0]")
      ->expected(1)
      ->take_all();
}

void addSourceOption(CLI::App* command, Options& options, const char* description) {
  command->add_option("--source", options.source, description)->type_name("NAME");
}

// A removal is of its subjects or of a source.
void addRemovedSource(CLI::App* command, CLI::Option* subjects, Options& options) {
  CLI::Option* source =
      command->add_option("--source", options.source, "All that an import of this name brought")
          ->type_name("NAME")
          ->excludes(subjects);
  command->callback([subjects, source] {
    if (subjects->empty() && source->empty()) throw CLI::RequiredError("SUBJECT or --source");
  });
}

void addCountCommand(CLI::App& app, const char* name, const char* description, Options& options) {
  app.add_subcommand(name, description)
      ->add_option("--by", options.countBy, "What the rows are")
      ->check(CLI::IsMember({"verdict", "source"}))
      ->capture_default_str();
}

void addImportOptions(CLI::App* command, Options& options, const std::vector<std::string>& formats,
                      const char* description) {
  command->add_option("--format", options.format, description)->required()->check(CLI::IsMember(formats));
  command->add_option("--source", options.source, "A name for what is imported, to remove it by")
      ->type_name("NAME")
      ->check([](const std::string& name) {
        const bool isTaken = name == qm::kVerdictSourceManual || name == qm::kVerdictSourceAnalysis;
        return isTaken || name.empty() ? "this name is not for imports" : std::string();
      });
  addVerdictOptions(command, options);
}

void addFileCommands(CLI::App& app, Options& options) {
  const auto addSubjects = [&](CLI::App* command) {
    return command
        ->add_option("SUBJECT", options.arguments, "Files, or hashes of 64 (SHA-256) or 40 (SHA-1) digits")
        ->type_name("FILE|HASH");
  };
  CLI::App* add = app.add_subcommand("add", "Give files a verdict, in place of the one they have");
  addSubjects(add)->required();
  addVerdictOptions(add, options)->required();
  CLI::App* remove = app.add_subcommand("remove", "Forget what is known about files");
  addRemovedSource(remove, addSubjects(remove), options);
  addSubjects(app.add_subcommand("show", "Show what is known about files"))->required();
  addCountCommand(app, "count", "Show how many hashes of files have which verdict", options);

  CLI::App* import =
      app.add_subcommand("import", "Take verdicts about files from a list, or from Debian packages");
  import
      ->add_option("FILE", options.arguments,
                   "The list, - reads standard input; of debian: the root of the system, / by default")
      ->type_name("FILE|FOLDER")
      ->expected(0, 1);
  addImportOptions(
      import, options, {"csv", "clamav", "debian", "hashes"},
      "csv: with a line of column names; clamav: hash signatures (.hsb); debian: the unchanged files "
      "of the installed packages; hashes: bare or as sha256sum writes them");
  addSourceOption(app.add_subcommand("export", "Write what is known about files as CSV"), options,
                  "Only what is of this source");
}

void addURLCommands(CLI::App& app, Options& options) {
  const auto addSubjects = [&](CLI::App* command) {
    return command->add_option("SUBJECT", options.arguments, "URLs, or hosts with all that are below them")
        ->type_name("URL|HOST");
  };
  CLI::App* add =
      app.add_subcommand("add-url", "Give URLs or hosts a verdict, in place of the one they have");
  addSubjects(add)->required();
  addVerdictOptions(add, options)->required();
  addCategoryOption(add, options);
  CLI::App* remove = app.add_subcommand("remove-url", "Forget what is known about URLs or hosts");
  addRemovedSource(remove, addSubjects(remove), options);
  addSubjects(app.add_subcommand("show-url", "Show what is known about URLs or hosts, and from which record"))
      ->required();
  addCountCommand(app, "count-url", "Show how many URLs and hosts have which verdict", options);

  CLI::App* import = app.add_subcommand("import-url", "Take verdicts about URLs or hosts from a list");
  import->add_option("FILE", options.arguments, "The list; - reads standard input")
      ->type_name("FILE")
      ->required()
      ->expected(1);
  addImportOptions(import, options, {"csv", "hosts"},
                   "hosts: a block list as hosts(5); csv: with a line of column names");
  addCategoryOption(import, options);
  addSourceOption(app.add_subcommand("export-url", "Write what is known about URLs and hosts as CSV"),
                  options, "Only what is of this source");
}

int run(int argc, char** argv) {
  Options options;
  options.store = qm::hostPath(QMRNamespace::namespacedWithPath(qm::kVerdictStoreProductPath));
  CLI::App app(
      "Looks at and edits the verdict store of the Skyvault agent.\n\n"
      "Exit status: 0 done, 1 something asked for is not in the store or a part of an import was skipped,\n"
      "2 it could not be done, 130 an import or the removal of a source was interrupted by Ctrl-C.",
      "qmverdicts");
  addStoreOptions(app, options);
  addFileCommands(app, options);
  addURLCommands(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return qm::tools::printUsage(app, error);
  }
  const std::pair<const char*, int (*)(const Options&)> commands[] = {
      {"add", addFiles},        {"remove", removeFiles},    {"show", showFiles},
      {"count", countFiles},    {"import", importFiles},    {"export", exportFiles},
      {"add-url", addURLs},     {"remove-url", removeURLs}, {"show-url", showURLs},
      {"count-url", countURLs}, {"import-url", importURLs}, {"export-url", exportURLs}};
  for (const auto& [name, run] : commands)
    if (app.got_subcommand(name)) return run(options);
  return kFailed;
}

}  // namespace

int main(int argc, char** argv) {
  qm::occupyClosedStandardDescriptors();
  return qm::tools::endOutput("qmverdicts", run(argc, argv));
}
