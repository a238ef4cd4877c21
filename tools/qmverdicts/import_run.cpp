#include "tools/qmverdicts/import_run.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace qm::qmverdicts {

namespace {

constexpr std::string_view kTooLong = "longer than 64 KiB";
constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";

}  // namespace

tools::Failure ImportRun::run(const Source& source) {
  std::array<char, 64 << 10> buffer;
  for (;;) {
    const std::int64_t count = source(buffer.data(), buffer.size());
    if (count < 0 && errno == EAGAIN) {
      if (auto failure = ledger_.advance(lines_, share())) return failure;
      continue;
    }
    if (count < 0) return "it cannot be read: " + std::string(std::strerror(errno));
    if (count == 0) break;
    position_ += count;
    if (auto failure = takeLines(std::string_view(buffer.data(), static_cast<std::size_t>(count))))
      return failure;
  }
  if (!line_.empty() || isTooLong_) {
    if (auto failure = takeLine()) return failure;
  }
  return ledger_.commit();
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
  if (lines_++ == 0 && line.starts_with(kByteOrderMark)) line.remove_prefix(kByteOrderMark.size());
  if (line.ends_with('\r')) line.remove_suffix(1);
  ImportedLine imported = isTooLong_ ? ImportedLine{{}, kTooLong} : format_.parse(line);
  line_.clear();
  isTooLong_ = false;
  if (auto failure = format_.failure()) return failure;
  if (!imported.skipped.empty()) ledger_.skip(imported.skipped, lines_);
  for (VerdictEntry& entry : imported.entries) ledger_.add(std::move(entry));
  return ledger_.advance(lines_, share());
}

std::optional<double> ImportRun::share() const {
  if (!size_ || *size_ <= 0) return std::nullopt;
  return std::min(1.0, static_cast<double>(position_) / static_cast<double>(*size_));
}

}  // namespace qm::qmverdicts
