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

namespace qm::qmverdicts {

namespace {

std::string textFromHash(const SHA256Value& hash) {
  std::string text;
  for (const std::uint8_t byte : hash) {
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 15];
  }
  return text;
}

struct Hashes {
  SHA256Value sha256{};
  std::optional<SHA1Value> sha1;  // of a file that is there
};

std::optional<Hashes> hashesOfFile(const std::string& path, std::string& reason) {
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
  return Hashes{sha256, sha1};
}

struct Subject {
  std::string argument;
  Hashes hashes;
};

// What the arguments name: 64 hexadecimal digits are a hash, anything else a file. All failures are reported.
std::optional<std::vector<Subject>> subjectsFrom(const std::vector<std::string>& arguments) {
  std::vector<Subject> subjects;
  for (const std::string& argument : arguments) {
    std::string reason;
    const std::optional<SHA256Value> hash = sha256FromHex(argument);
    const auto hashes = hash ? std::optional(Hashes{*hash, std::nullopt}) : hashesOfFile(argument, reason);
    if (hashes)
      subjects.push_back({argument, *hashes});
    else
      report(argument + ": " + reason);
  }
  if (subjects.size() != arguments.size()) return std::nullopt;
  return subjects;
}

}  // namespace

int addFiles(const Options& options) {
  const auto subjects = subjectsFrom(options.arguments);
  if (!subjects) return kFailed;
  const StoredVerdict record = recordFrom(options, kVerdictSourceManual);
  std::vector<VerdictStore::Entry> entries;
  std::vector<VerdictStore::SHA1Entry> sha1Entries;
  for (const Subject& subject : *subjects) {
    entries.emplace_back(subject.hashes.sha256, record);
    if (subject.hashes.sha1) sha1Entries.emplace_back(*subject.hashes.sha1, record);
  }
  const auto store = openStore(options, VerdictStore::Access::readWrite);
  if (store == nullptr) return kFailed;
  ErrorPtr error;
  if (!store->add(entries, &error) || !store->add(sha1Entries, &error))
    return report(error->localizedDescription());
  return kDone;
}

int removeFiles(const Options& options) {
  const auto subjects = subjectsFrom(options.arguments);
  if (!subjects) return kFailed;
  std::vector<SHA256Value> hashes;
  std::vector<SHA1Value> sha1Hashes;
  for (const Subject& subject : *subjects) {
    hashes.push_back(subject.hashes.sha256);
    if (subject.hashes.sha1) sha1Hashes.push_back(*subject.hashes.sha1);
  }
  const auto store = openStore(options, VerdictStore::Access::readWrite);
  if (store == nullptr) return kFailed;
  ErrorPtr error;
  const bool isSHA1Removed = store->remove(sha1Hashes, &error).has_value();
  const auto removed = isSHA1Removed ? store->remove(hashes, &error) : std::nullopt;
  return printRemoved(removed, error);
}

int showFiles(const Options& options) {
  const auto subjects = subjectsFrom(options.arguments);
  if (!subjects) return kFailed;
  const auto store = openStore(options, VerdictStore::Access::look);
  if (store == nullptr) return kFailed;
  int status = kDone;
  for (const Subject& subject : *subjects) {
    ErrorPtr error;
    const std::optional<StoredVerdict> record = store->find(subject.hashes.sha256, &error);
    if (error != nullptr) return report(error->localizedDescription());
    if (record) {
      const std::string hash = textFromHash(subject.hashes.sha256);
      print(hash, *record, "", sha256FromHex(subject.argument) ? hash : subject.argument);
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
  ErrorPtr error;
  const auto counts = store->count(&error);
  return printCounts(counts, error);
}

}  // namespace qm::qmverdicts
