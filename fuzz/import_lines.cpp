// Any text as a block list, and as comma-separated values, of URLs with verdicts.
#include "tools/qmverdicts/import_lines.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

void parseAll(qm::qmverdicts::ImportFormat& format, std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const qm::qmverdicts::ImportedLine line = format.parse(text.substr(0, end));
    if (!line.entries.empty() && !line.skipped.empty()) std::abort();  // one of the two, never both
    for (const auto& [key, record] : line.entries)
      if (key.empty() || !qm::isSafetyVerdictValue(record.verdict)) std::abort();
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), length);
  qm::StoredURLVerdict record;
  record.verdict = "malicious";
  qm::qmverdicts::HostsFormat hosts(record);
  qm::qmverdicts::CSVFormat values(record);
  parseAll(hosts, text);
  parseAll(values, text);
  return 0;
}
