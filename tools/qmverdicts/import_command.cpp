#include "tools/qmverdicts/import_command.hpp"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/SVKSkyvaultServiceClientProtocol.hpp"
#include "platform/file_io.hpp"
#include "platform/interruption.hpp"
#include "platform/regular_file.hpp"
#include "tools/qmr/progress_line.hpp"
#include "tools/qmverdicts/csv_format.hpp"
#include "tools/qmverdicts/debian_import.hpp"
#include "tools/qmverdicts/debian_packages.hpp"
#include "tools/qmverdicts/hash_formats.hpp"
#include "tools/qmverdicts/import_run.hpp"
#include "tools/standard_streams.hpp"

namespace qm::qmverdicts {

namespace {

// What is there already is not kept waiting for more: EAGAIN says that nothing came for a while. The wait is
// poll's: ThreadSanitizer holds signals back in a read.
std::int64_t readStandardInput(char* buffer, std::size_t size) {
  constexpr int kPatience = std::chrono::milliseconds(ImportLedger::kBatchTime).count();
  pollfd input{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
  for (;;) {
    const int ready = ::poll(&input, 1, kPatience);
    if (ready == 0) errno = EAGAIN;
    const ssize_t count = ready > 0 ? ::read(STDIN_FILENO, buffer, size) : -1;
    if (count >= 0 || errno != EINTR) return count;
  }
}

struct ImportSource {
  ImportRun::Source read;            // empty when it was reported why
  std::optional<std::int64_t> size;  // bytes
};

ImportSource openSource(const std::string& path) {
  if (path == "-") {
    char nothing = 0;
    if (::read(STDIN_FILENO, &nothing, 0) == 0) return {readStandardInput, std::nullopt};
    report(tools::inputProblem(errno));
    return {};
  }
  OpenedFile file = openRegularFile(path, SymbolicLinks::follow);
  if (!file.descriptor) {
    report(path + ": " +
           (file.errorNumber != 0 ? std::strerror(file.errorNumber)
                                  : std::string("is not a regular file but a ") + name(file.kind)));
    return {};
  }
  auto descriptor = std::make_shared<FileDescriptor>(std::move(file.descriptor));
  const auto read = [descriptor, position = std::int64_t{0}](char* buffer, std::size_t size) mutable {
    const std::int64_t count = readAt(descriptor->get(), buffer, size, position);
    position += count;
    return count;
  };
  return {read, file.size};
}

// Runs the work with a ledger; says how it went, also when a person interrupts it. The exit status.
int runImport(const Options& options, std::string_view unit,
              const std::function<tools::Failure(ImportLedger&)>& work) {
  const auto store = openStore(options, VerdictStore::Access::readWrite);
  if (store == nullptr) return kFailed;
  qmr::ProgressLine progress(std::cerr, qmr::progressWidth());
  ImportLedger ledger(*store, progress, unit);
  const Interruption interruption(
      [&] { ledger.conclude(std::cout, [&] { endBySignal(interruption.signal()); }); });
  const tools::Failure failure = work(ledger);
  ledger.conclude(std::cout);
  if (failure) return report(options.arguments.at(0) + ": " + *failure);
  return ledger.hasSkipped() ? kNotThere : kDone;
}

// Null when it was reported why.
std::unique_ptr<ImportFormat> makeFormat(const Options& options, CSVSubject subject) {
  const char* const plainSource = options.format == "clamav" ? "clamav" : kVerdictSourceImport;
  std::optional<StoredURLVerdict> record =
      urlRecordFrom(options, options.source.empty() ? plainSource : options.source);
  if (!record) return nullptr;
  if (options.format == "csv") return std::make_unique<CSVFormat>(subject, *std::move(record));
  if (options.format == "clamav") return std::make_unique<ClamAVFormat>(*std::move(record));
  if (options.verdict.empty()) {
    report("such a list says nothing about what stands in it: give it a --verdict");
    return nullptr;
  }
  if (options.format == "hosts") return std::make_unique<HostsFormat>(*std::move(record));
  return std::make_unique<HashListFormat>(*std::move(record));
}

int importLines(const Options& options, CSVSubject subject) {
  const std::unique_ptr<ImportFormat> format = makeFormat(options, subject);
  const ImportSource source = format == nullptr ? ImportSource{} : openSource(options.arguments.at(0));
  if (!source.read) return kFailed;
  return runImport(options, "line", [&](ImportLedger& ledger) {
    return ImportRun(ledger, *format, source.size).run(source.read);
  });
}

// Before there is a store: a folder without packages leaves none behind.
tools::Failure readDebianPackages(const std::string& root, DebianPackages& packages) {
  qmr::ProgressLine progress(std::cerr, qmr::progressWidth());
  return packages.read(root, [&](std::size_t done, std::size_t all) {
    progress.show([&] {
      return "reading what dpkg recorded: " + std::to_string(done) + " of " + std::to_string(all) +
             " packages";
    });
  });
}

int importDebian(Options options) {
  if (options.verdict.empty()) options.verdict = SVKSkyvaultSafetyVerdictValueKnownClean;
  if (options.verdict != SVKSkyvaultSafetyVerdictValueKnownClean)
    return report("what is as its package brought it is known_clean and nothing else");
  if (!options.name.empty()) return report("what is known_clean has no infection name");
  if (options.arguments.empty()) options.arguments = {"/"};
  std::string root = options.arguments.at(0);
  while (root.ends_with('/')) root.pop_back();
  const auto record = urlRecordFrom(options, options.source.empty() ? "debian" : options.source);
  DebianPackages packages;
  if (const tools::Failure failure = readDebianPackages(root, packages)) return report(*failure);
  return runImport(options, "file",
                   [&](ImportLedger& ledger) { return importDebianFiles(packages, *record, ledger); });
}

// One line for each record of the kinds. The exit status.
int exportKinds(const Options& options, CSVSubject subject, std::initializer_list<VerdictKind> kinds) {
  const auto store = openStore(options, VerdictStore::Access::look);
  if (store == nullptr) return kFailed;
  std::fputs(csvHeader(subject).c_str(), stdout);
  std::uint64_t unfit = 0;
  const auto write = [&](const VerdictEntry& entry) {
    const std::string line = csvLine(entry);
    if (line.empty()) ++unfit;
    return std::fwrite(line.data(), 1, line.size(), stdout) == line.size();
  };
  ErrorPtr error;
  for (const VerdictKind kind : kinds)
    if (!store->visit(kind, options.source, write, &error)) return report(error->localizedDescription());
  if (unfit == 0) return kDone;
  report(std::to_string(unfit) + " left out: their texts are too long or have control characters");
  return kNotThere;
}

}  // namespace

int importFiles(const Options& options) {
  if (options.format == "debian") return importDebian(options);
  if (!options.arguments.empty()) return importLines(options, CSVSubject::file);
  return report("give the list's file, or - for standard input");
}

int importURLs(const Options& options) {
  return importLines(options, CSVSubject::url);
}

int exportFiles(const Options& options) {
  return exportKinds(options, CSVSubject::file, {VerdictKind::sha256, VerdictKind::sha1});
}

int exportURLs(const Options& options) {
  return exportKinds(options, CSVSubject::url, {VerdictKind::url});
}

}  // namespace qm::qmverdicts
