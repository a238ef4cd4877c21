#include "tools/qmverdicts/url_commands.hpp"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "companions/url_categories.hpp"
#include "companions/url_key.hpp"
#include "platform/file_io.hpp"
#include "platform/interruption.hpp"
#include "platform/regular_file.hpp"
#include "platform/terminal.hpp"
#include "tools/qmr/display_text.hpp"
#include "tools/qmr/progress_line.hpp"
#include "tools/qmverdicts/import_run.hpp"

namespace qm::qmverdicts {

namespace {

// All failures are reported.
std::optional<std::vector<std::string>> keysFrom(const std::vector<std::string>& arguments) {
  std::vector<std::string> keys;
  for (const std::string& argument : arguments) {
    if (std::optional<std::string> key = urlKey(argument))
      keys.push_back(*std::move(key));
    else
      report(argument + ": no URL with a host and no host name");
  }
  if (keys.size() != arguments.size()) return std::nullopt;
  return keys;
}

std::unique_ptr<ImportFormat> makeFormat(const Options& options) {
  std::optional<StoredURLVerdict> record =
      urlRecordFrom(options, options.source.empty() ? kVerdictSourceImport : options.source);
  if (!record) return nullptr;
  if (options.format == "csv") return std::make_unique<CSVFormat>(*std::move(record));
  if (!options.verdict.empty()) return std::make_unique<HostsFormat>(*std::move(record));
  report("a block list says nothing about its hosts: give them a --verdict");
  return nullptr;
}

// What is there already is not kept waiting for more. The wait is poll's: ThreadSanitizer holds signals back
// in a read.
std::int64_t readStandardInput(char* buffer, std::size_t size) {
  pollfd input{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
  ssize_t count = -1;
  do {
    if (::poll(&input, 1, -1) > 0) count = ::read(STDIN_FILENO, buffer, size);
  } while (count < 0 && errno == EINTR);
  return count;
}

// Empty when it was reported why.
ImportRun::Source openSource(const std::string& path) {
  if (path == "-") return readStandardInput;
  OpenedFile file = openRegularFile(path, SymbolicLinks::follow);
  if (!file.descriptor) {
    report(path + ": " +
           (file.errorNumber != 0 ? std::strerror(file.errorNumber)
                                  : std::string("is not a regular file but a ") + name(file.kind)));
    return nullptr;
  }
  auto descriptor = std::make_shared<FileDescriptor>(std::move(file.descriptor));
  return [descriptor, position = std::int64_t{0}](char* buffer, std::size_t size) mutable {
    const std::int64_t count = readAt(descriptor->get(), buffer, size, position);
    position += count;
    return count;
  };
}

unsigned progressWidth() {
  const char* terminal = std::getenv("TERM");
  const bool isDumb =
      terminal == nullptr || std::string_view(terminal).empty() || std::string_view(terminal) == "dumb";
  return isDumb ? 0 : terminalWidth(StandardStream::error);
}

}  // namespace

int addURLs(const Options& options) {
  const auto keys = keysFrom(options.arguments);
  const auto record = urlRecordFrom(options, kVerdictSourceManual);
  if (!keys || !record) return kFailed;
  std::vector<VerdictStore::URLEntry> entries;
  for (const std::string& key : *keys) entries.emplace_back(key, *record);
  const auto store = openStore(options, VerdictStore::Access::readWrite);
  if (store == nullptr) return kFailed;
  ErrorPtr error;
  if (!store->addURLs(entries, &error)) return report(error->localizedDescription());
  return kDone;
}

int removeURLs(const Options& options) {
  const auto keys = keysFrom(options.arguments);
  if (!keys) return kFailed;
  const auto store = openStore(options, VerdictStore::Access::readWrite);
  if (store == nullptr) return kFailed;
  ErrorPtr error;
  const auto removed = options.source.empty() ? store->removeURLs(*keys, &error)
                                              : store->removeURLsOfSource(options.source, &error);
  return printRemoved(removed, error);
}

int showURLs(const Options& options) {
  const auto keys = keysFrom(options.arguments);
  if (!keys) return kFailed;
  const auto store = openStore(options, VerdictStore::Access::look);
  if (store == nullptr) return kFailed;
  int status = kDone;
  for (const std::string& argument : options.arguments) {
    ErrorPtr error;
    const auto found = store->findURL(urlLookupKeys(argument), &error);
    if (error != nullptr) return report(error->localizedDescription());
    if (found) {
      const std::string categories = textFromCategories(found->second.categories);
      print(found->first, found->second, categories.empty() ? "" : " categories=\"" + categories + "\"",
            argument);
      continue;
    }
    std::printf("%s not in the store\n", qmr::displayText(argument).c_str());
    status = kNotThere;
  }
  return status;
}

int countURLs(const Options& options) {
  const auto store = openStore(options, VerdictStore::Access::look);
  if (store == nullptr) return kFailed;
  ErrorPtr error;
  const auto counts = store->countURLs(&error);
  return printCounts(counts, error);
}

int importURLs(const Options& options) {
  const std::unique_ptr<ImportFormat> format = makeFormat(options);
  const ImportRun::Source source = format == nullptr ? nullptr : openSource(options.arguments.at(0));
  const auto store = source ? openStore(options, VerdictStore::Access::readWrite) : nullptr;
  if (store == nullptr) return kFailed;
  qmr::ProgressLine progress(std::cerr, progressWidth());
  ImportRun run(*store, *format, progress);
  const Interruption interruption(
      [&] { run.conclude(std::cout, [&] { endBySignal(interruption.signal()); }); });
  const tools::Failure failure = run.run(source);
  run.conclude(std::cout);
  if (failure) return report(options.arguments.at(0) + ": " + *failure);
  return run.hasSkipped() ? kNotThere : kDone;
}

}  // namespace qm::qmverdicts
