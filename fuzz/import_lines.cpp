// Any text as each of the lists that verdicts are imported from, and as the files of dpkg's database.
#include "tools/qmverdicts/import_lines.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "tools/qmverdicts/csv_format.hpp"
#include "tools/qmverdicts/debian_packages.hpp"
#include "tools/qmverdicts/hash_formats.hpp"

namespace {

using namespace qm::qmverdicts;

// What is written is read as the same again.
void checkExport(const qm::VerdictEntry& entry) {
  const bool isURL = std::holds_alternative<std::string>(entry.first);
  const CSVSubject subject = isURL ? CSVSubject::url : CSVSubject::file;
  CSVFormat format(subject, {});
  std::string header = csvHeader(subject), line = csvLine(entry);
  if (line.empty() || line.find('\n') != line.size() - 1) std::abort();
  header.pop_back();
  line.pop_back();
  format.parse(header);
  const ImportedLine again = format.parse(line);
  if (again.entries != std::vector<qm::VerdictEntry>{entry}) std::abort();
}

void parseAll(ImportFormat& format, std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const ImportedLine line = format.parse(text.substr(0, end));
    if (!line.entries.empty() && !line.skipped.empty()) std::abort();  // one of the two, never both
    for (const qm::VerdictEntry& entry : line.entries) checkExport(entry);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), length);
  qm::StoredURLVerdict record;
  record.source = "list";
  CSVFormat urls(CSVSubject::url, record), files(CSVSubject::file, record);
  ClamAVFormat signatures(record);
  record.verdict = "malicious";
  HostsFormat hosts(record);
  HashListFormat hashes(record);
  for (ImportFormat* format :
       std::initializer_list<ImportFormat*>{&urls, &files, &signatures, &hosts, &hashes})
    parseAll(*format, text);

  const PackageStates packages = packageStates(text);
  for (const InstalledPackage& package : packages.installed)
    if (package.filesName.empty() || package.filesName.find('/') != std::string::npos) std::abort();
  const Diversions diversions(text);
  if (const auto file = recordedFile(text); file && !diversions.placeOf(file->path, "p").starts_with('/'))
    std::abort();
  return 0;
}
