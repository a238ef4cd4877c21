#include "tools/qmverdicts/file_commands.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "platform/digest.hpp"
#include "platform/file_io.hpp"
#include "platform/regular_file.hpp"
#include "tools/qmr/display_text.hpp"
#include "tools/qmverdicts/hash_formats.hpp"

namespace qm::qmverdicts {

namespace {

// The SHA-256 and the SHA-1.
std::optional<std::vector<VerdictKey>> hashesOfFile(const std::string& path, std::string& reason) {
  const OpenedFile file = openRegularFile(path, SymbolicLinks::follow);
  if (!file.descriptor) {
    reason = file.errorNumber != 0 ? std::strerror(file.errorNumber)
                                   : std::string("is not a regular file but a ") + name(file.kind);
    return std::nullopt;
  }
  FileDigests digests;
  std::vector<char> buffer(1 << 20);
  std::int64_t position = 0;
  for (;;) {
    const std::int64_t count = readAt(file.descriptor.get(), buffer.data(), buffer.size(), position);
    if (count < 0) {
      reason = std::strerror(errno);
      return std::nullopt;
    }
    if (count == 0) break;
    digests.update(buffer.data(), static_cast<std::size_t>(count));
    position += count;
  }
  SHA1Value sha1;
  SHA256Value sha256;
  digests.finish(sha1, sha256);
  return std::vector<VerdictKey>{sha256, sha1};
}

struct Subject {
  std::string argument;
  std::vector<VerdictKey> keys;  // those of a file, the SHA-256 first, or the one that the argument is
};

// What the arguments name: 64 or 40 hexadecimal digits are a hash, anything else a file. All failures are
// reported.
std::optional<std::vector<Subject>> subjectsFrom(const std::vector<std::string>& arguments) {
  std::vector<Subject> subjects;
  for (const std::string& argument : arguments) {
    std::string reason;
    VerdictKey key;
    const bool isHash = readHash(argument, key).empty();
    auto keys = isHash ? std::vector{key} : hashesOfFile(argument, reason);
    if (keys)
      subjects.push_back({argument, *std::move(keys)});
    else
      report(argument + ": " + reason);
  }
  if (subjects.size() != arguments.size()) return std::nullopt;
  return subjects;
}

std::optional<VerdictStore::FileEntry> find(VerdictStore& store, const Subject& subject, ErrorPtr& error) {
  std::optional<SHA256Value> sha256;
  std::optional<SHA1Value> sha1;
  for (const VerdictKey& key : subject.keys) {
    if (const auto* value = std::get_if<SHA256Value>(&key)) sha256 = *value;
    if (const auto* value = std::get_if<SHA1Value>(&key)) sha1 = *value;
  }
  return store.findFile(sha256, sha1, &error);
}

}  // namespace

int addFiles(const Options& options) {
  const auto subjects = subjectsFrom(options.arguments);
  if (!subjects) return kFailed;
  const StoredVerdict record = recordFrom(options, kVerdictSourceManual);
  std::vector<VerdictEntry> entries;
  for (const Subject& subject : *subjects)
    for (const VerdictKey& key : subject.keys) entries.emplace_back(key, StoredURLVerdict{record, {}});
  const auto store = openStore(options, VerdictStore::Access::readWrite);
  if (store == nullptr) return kFailed;
  ErrorPtr error;
  if (!store->addAll(entries, &error)) return report(error->localizedDescription());
  return kDone;
}

int removeFiles(const Options& options) {
  const auto subjects = subjectsFrom(options.arguments);
  if (!subjects) return kFailed;
  std::vector<VerdictKey> keys;
  for (const Subject& subject : *subjects) keys.insert(keys.end(), subject.keys.begin(), subject.keys.end());
  const auto store = openStore(options, VerdictStore::Access::change);
  if (store == nullptr) return kFailed;
  if (!options.source.empty()) return removeSource(*store, options, &VerdictStore::removeFilesOfSource);
  ErrorPtr error;
  return printRemoved(store->remove(keys, &error), error);
}

int showFiles(const Options& options) {
  const auto subjects = subjectsFrom(options.arguments);
  if (!subjects) return kFailed;
  const auto store = openStore(options, VerdictStore::Access::look);
  if (store == nullptr) return kFailed;
  int status = kDone;
  for (const Subject& subject : *subjects) {
    ErrorPtr error;
    const auto entry = find(*store, subject, error);
    if (error != nullptr) return report(error->localizedDescription());
    if (entry) {
      const std::string hash = textFromKey(entry->first);
      VerdictKey key;
      print(hash, entry->second, "", readHash(subject.argument, key).empty() ? hash : subject.argument);
      continue;
    }
    std::printf("%s not in the store\n", qmr::displayText(subject.argument).c_str());
    status = kNotThere;
  }
  return status;
}

int countFiles(const Options& options) {
  const auto store = openStore(options, VerdictStore::Access::look);
  if (store == nullptr) return kFailed;
  return printCounts(*store, options, {{"SHA-256", VerdictKind::sha256}, {"SHA-1", VerdictKind::sha1}});
}

}  // namespace qm::qmverdicts
