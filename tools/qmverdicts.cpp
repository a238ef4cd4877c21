// qmverdicts: looks at and edits the verdict store that the Skyvault agent answers from.
//
// Exit status: 0 done, 1 something asked for is not in the store, 2 it could not be done (nothing was changed
// then).

#include <CLI/CLI.hpp>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "companions/verdict_store.hpp"
#include "foundation/value.hpp"
#include "platform/digest.hpp"
#include "platform/file_io.hpp"
#include "platform/regular_file.hpp"
#include "platform/system_root.hpp"
#include "reputation/backends/SVKSkyvaultServiceClientProtocol.hpp"
#include "settings/QMRNamespace.hpp"
#include "tools/qmr/display_text.hpp"

namespace {

using qm::SHA256Value;
using qm::StoredVerdict;
using qm::VerdictStore;
using qm::qmr::displayText;

enum ExitStatus : int { kDone = 0, kNotThere = 1, kFailed = 2 };

int report(const std::string& text) {
  std::fprintf(stderr, "qmverdicts: %s\n", displayText(text).c_str());
  return kFailed;
}

std::string textFromHash(const SHA256Value& hash) {
  std::string text;
  for (const std::uint8_t byte : hash) {
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 15];
  }
  return text;
}

std::optional<SHA256Value> hashOfFile(const std::string& path, std::string& reason) {
  const qm::OpenedFile file = qm::openRegularFile(path, qm::SymbolicLinks::follow);
  if (!file.descriptor) {
    reason = file.errorNumber != 0 ? std::strerror(file.errorNumber)
                                   : std::string("is not a regular file but a ") + qm::name(file.kind);
    return std::nullopt;
  }
  qm::FileDigests digests;
  std::vector<char> buffer(1 << 20);
  std::int64_t position = 0;
  for (;;) {
    const std::int64_t count = qm::readAt(file.descriptor.get(), buffer.data(), buffer.size(), position);
    if (count < 0) {
      reason = std::strerror(errno);
      return std::nullopt;
    }
    if (count == 0) break;
    digests.update(buffer.data(), static_cast<std::size_t>(count));
    position += count;
  }
  qm::SHA1Value sha1;
  SHA256Value sha256;
  digests.finish(sha1, sha256);
  return sha256;
}

struct Subject {
  std::string argument;
  SHA256Value hash{};
};

// What the arguments name: 64 hexadecimal digits are a hash, anything else a file. All failures are reported.
std::optional<std::vector<Subject>> subjectsFrom(const std::vector<std::string>& arguments) {
  std::vector<Subject> subjects;
  for (const std::string& argument : arguments) {
    std::string reason;
    std::optional<SHA256Value> hash = qm::sha256FromHex(argument);
    if (!hash) hash = hashOfFile(argument, reason);
    if (hash)
      subjects.push_back({argument, *hash});
    else
      report(argument + ": " + reason);
  }
  if (subjects.size() != arguments.size()) return std::nullopt;
  return subjects;
}

struct Options {
  std::string store;
  std::vector<std::string> arguments;
  std::string verdict;
  std::string name;
  unsigned prevalence = 0;
  std::uint32_t ttl = qm::kDefaultVerdictTTL;
};

std::unique_ptr<VerdictStore> openStore(const Options& options, VerdictStore::Access access) {
  qm::ErrorPtr error;
  std::unique_ptr<VerdictStore> store = VerdictStore::open(options.store, access, &error);
  if (store == nullptr) report(error->localizedDescription());
  return store;
}

int add(const Options& options) {
  const auto subjects = subjectsFrom(options.arguments);
  if (!subjects) return kFailed;
  StoredVerdict record;
  record.verdict = options.verdict;
  if (!options.name.empty()) record.infectionName = options.name;
  record.prevalence = static_cast<std::uint8_t>(options.prevalence);
  record.ttl = options.ttl;
  record.source = qm::kVerdictSourceManual;
  record.added = qm::Date::now().nanosecondsSince1970 / 1'000'000'000;
  std::vector<VerdictStore::Entry> entries;
  for (const Subject& subject : *subjects) entries.emplace_back(subject.hash, record);
  const auto store = openStore(options, VerdictStore::Access::readWrite);
  if (store == nullptr) return kFailed;
  qm::ErrorPtr error;
  if (!store->add(entries, &error)) return report(error->localizedDescription());
  return kDone;
}

int removeVerdicts(const Options& options) {
  const auto subjects = subjectsFrom(options.arguments);
  if (!subjects) return kFailed;
  std::vector<SHA256Value> hashes;
  for (const Subject& subject : *subjects) hashes.push_back(subject.hash);
  const auto store = openStore(options, VerdictStore::Access::readWrite);
  if (store == nullptr) return kFailed;
  qm::ErrorPtr error;
  const std::optional<std::size_t> removed = store->remove(hashes, &error);
  if (!removed) return report(error->localizedDescription());
  std::printf("%zu removed\n", *removed);
  return *removed == 0 ? kNotThere : kDone;
}

void print(const Subject& subject, const StoredVerdict& record) {
  const std::time_t added = static_cast<std::time_t>(record.added);
  std::tm parts{};
  char when[32] = "?";
  if (gmtime_r(&added, &parts) != nullptr) std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &parts);
  const std::string name = record.infectionName ? " name=\"" + displayText(*record.infectionName) + "\"" : "";
  const std::string hash = textFromHash(subject.hash);
  const bool isFile = !qm::sha256FromHex(subject.argument);
  std::printf("%s %s%s prevalence=%u ttl=%u source=%s added=%s%s%s\n", hash.c_str(),
              displayText(record.verdict).c_str(), name.c_str(), unsigned{record.prevalence},
              unsigned{record.ttl}, displayText(record.source).c_str(), when, isFile ? "  " : "",
              isFile ? displayText(subject.argument).c_str() : "");
}

int show(const Options& options) {
  const auto subjects = subjectsFrom(options.arguments);
  if (!subjects) return kFailed;
  const auto store = openStore(options, VerdictStore::Access::look);
  if (store == nullptr) return kFailed;
  int status = kDone;
  for (const Subject& subject : *subjects) {
    qm::ErrorPtr error;
    const std::optional<StoredVerdict> record = store->find(subject.hash, &error);
    if (error != nullptr) return report(error->localizedDescription());
    if (record) {
      print(subject, *record);
      continue;
    }
    std::printf("%s not in the store\n", displayText(subject.argument).c_str());
    status = kNotThere;
  }
  return status;
}

int count(const Options& options) {
  const auto store = openStore(options, VerdictStore::Access::look);
  if (store == nullptr) return kFailed;
  qm::ErrorPtr error;
  const auto counts = store->count(&error);
  if (!counts) return report(error->localizedDescription());
  std::uint64_t total = 0;
  for (const auto& [verdict, number] : *counts) {
    std::printf("%-12s %llu\n", displayText(verdict).c_str(), static_cast<unsigned long long>(number));
    total += number;
  }
  std::printf("%-12s %llu\n", "total", static_cast<unsigned long long>(total));
  return kDone;
}

void defineCommands(CLI::App& app, Options& options) {
  const std::vector<std::string> verdicts = {
      SVKSkyvaultSafetyVerdictValueKnownClean, SVKSkyvaultSafetyVerdictValueUndetected,
      SVKSkyvaultSafetyVerdictValuePU,         SVKSkyvaultSafetyVerdictValueUnwanted,
      SVKSkyvaultSafetyVerdictValueMalicious,  SVKSkyvaultSafetyVerdictValueUnknown};
  app.require_subcommand(1);
  app.fallthrough();
  app.add_option("--store", options.store, "The store's file")->type_name("PATH")->capture_default_str();
  app.set_version_flag("--version", QM_PRODUCT_VERSION);

  const auto addSubjects = [&](CLI::App* command) {
    command->add_option("SUBJECT", options.arguments, "Files, or SHA-256 hashes of 64 hexadecimal digits")
        ->type_name("FILE|SHA256")
        ->required();
  };
  CLI::App* addCommand = app.add_subcommand("add", "Give files a verdict, in place of the one they have");
  addSubjects(addCommand);
  addCommand->add_option("--verdict", options.verdict, "What is known about the files")
      ->required()
      ->check(CLI::IsMember(verdicts));
  addCommand->add_option("--name", options.name, "Infection name");
  addCommand->add_option("--prevalence", options.prevalence, "How common the files are, 0 to 255")
      ->check(CLI::Range(0U, 255U))
      ->capture_default_str();
  addCommand->add_option("--ttl", options.ttl, "Seconds an answer may be kept")
      ->check(CLI::Range(std::int64_t{0}, std::int64_t{UINT32_MAX}))
      ->capture_default_str();
  addSubjects(app.add_subcommand("remove", "Forget what is known about files"));
  addSubjects(app.add_subcommand("show", "Show what is known about files"));
  app.add_subcommand("count", "Show how many files have which verdict");
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  options.store = qm::hostPath(QMRNamespace::namespacedWithPath(qm::kVerdictStoreProductPath));
  CLI::App app(
      "Looks at and edits the verdict store of the Skyvault agent.\n\n"
      "Exit status: 0 done, 1 something asked for is not in the store, 2 it could not be done.");
  defineCommands(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kFailed;
  }
  if (app.got_subcommand("add")) return add(options);
  if (app.got_subcommand("remove")) return removeVerdicts(options);
  if (app.got_subcommand("show")) return show(options);
  return count(options);
}
