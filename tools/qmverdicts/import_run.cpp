#include "tools/qmverdicts/import_run.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace qm::qmverdicts {

namespace {

constexpr std::string_view kTooLong = "longer than 64 KiB";
constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
// Of one reason; more are only counted.
constexpr std::size_t kMaximumRanges = 100;

std::string counted(std::uint64_t count, std::string_view noun) {
  return std::to_string(count) + " " + std::string(noun) + (count == 1 ? "" : "s");
}

}  // namespace

tools::Failure ImportRun::run(const Source& source) {
  std::array<char, 64 << 10> buffer;
  for (;;) {
    const std::int64_t count = source(buffer.data(), buffer.size());
    if (count < 0) return "it cannot be read: " + std::string(std::strerror(errno));
    if (count == 0) break;
    if (auto failure = takeLines(std::string_view(buffer.data(), static_cast<std::size_t>(count))))
      return failure;
  }
  if (!line_.empty() || isTooLong_) {
    if (auto failure = takeLine()) return failure;
  }
  return commit();
}

tools::Failure ImportRun::takeLines(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t end = bytes.find('\n');
    const std::string_view part = bytes.substr(0, end);
    if (line_.size() + part.size() > kMaximumLineLength)
      isTooLong_ = true;
    else
      line_ += part;
    if (end == std::string_view::npos) return std::nullopt;
    bytes.remove_prefix(end + 1);
    if (auto failure = takeLine()) return failure;
  }
  return std::nullopt;
}

tools::Failure ImportRun::takeLine() {
  std::string_view line = line_;
  if (read_.lines++ == 0 && line.starts_with(kByteOrderMark)) line.remove_prefix(kByteOrderMark.size());
  if (line.ends_with('\r')) line.remove_suffix(1);
  ImportedLine imported = isTooLong_ ? ImportedLine{{}, kTooLong} : format_.parse(line);
  line_.clear();
  isTooLong_ = false;
  if (auto failure = format_.failure()) return failure;
  if (!imported.skipped.empty()) skip(imported.skipped);
  for (VerdictStore::URLEntry& entry : imported.entries) batch_.push_back(std::move(entry));
  return batch_.size() < kBatchSize ? std::nullopt : commit();
}

void ImportRun::skip(std::string_view reason) {
  Skipped& skipped = read_.skipped[reason];
  ++skipped.lines;
  std::vector<LineRange>& ranges = skipped.ranges;
  if (!ranges.empty() && skipped.unlisted == 0 && ranges.back().second + 1 == read_.lines)
    ranges.back().second = read_.lines;
  else if (ranges.size() < kMaximumRanges)
    ranges.emplace_back(read_.lines, read_.lines);
  else
    ++skipped.unlisted;
}

tools::Failure ImportRun::commit() {
  const std::lock_guard lock(mutex_);
  ErrorPtr error;
  const std::optional<std::size_t> added = store_.importURLs(batch_, &error);
  if (!added) return error->localizedDescription();
  read_.added += *added;
  read_.kept += batch_.size() - *added;
  committed_ = read_;
  batch_.clear();
  progress_.show([&] {
    return counted(committed_.lines, "line") + ", " + counted(committed_.added, "verdict") + " in the store";
  });
  return std::nullopt;
}

void ImportRun::conclude(std::ostream& output, const std::function<void()>& last) {
  const std::lock_guard lock(mutex_);
  progress_.clear();
  std::uint64_t skippedLines = 0;
  for (const auto& [reason, skipped] : committed_.skipped) skippedLines += skipped.lines;
  output << counted(committed_.lines, "line") << ": " << counted(committed_.added, "verdict")
         << " put into the store, " << committed_.kept << " left as a person gave them, "
         << counted(skippedLines, "line") << " skipped\n";
  for (const auto& [reason, skipped] : committed_.skipped) {
    output << "skipped, " << reason << ": ";
    const char* separator = skipped.lines == 1 ? "line " : "lines ";
    for (const auto& [first, end] : skipped.ranges) {
      output << std::exchange(separator, ", ") << first;
      if (end != first) output << "-" << end;
    }
    if (skipped.unlisted != 0) output << ", and " << skipped.unlisted << " more";
    output << "\n";
  }
  output.flush();
  if (last) last();
}

}  // namespace qm::qmverdicts
