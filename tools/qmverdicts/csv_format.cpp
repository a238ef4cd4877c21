#include "tools/qmverdicts/csv_format.hpp"

#include <algorithm>
#include <charconv>
#include <optional>
#include <system_error>
#include <variant>

#include "companions/url_categories.hpp"
#include "companions/url_key.hpp"
#include "foundation/strings.hpp"
#include "tools/qmverdicts/hash_formats.hpp"

namespace qm::qmverdicts {

namespace {

constexpr std::string_view kNotAURL = "no URL with a host and no host name";
constexpr std::string_view kBadQuotes = "quotes out of place";
constexpr std::string_view kNoVerdict = "no known verdict";
constexpr std::string_view kBadText =
    "a name or source of more than 255 bytes, with control characters or not UTF-8";
constexpr std::string_view kBadNumber = "a prevalence, ttl or time that is no number in its range";
constexpr std::string_view kBadCategories = "categories that are no list of names";

template <class Number>
bool readNumber(std::string_view text, Number& number) {
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
  return failure == std::errc() && end == text.data() + text.size();
}

// A quoted field from behind its first quote; false when it is not closed. Moves the position behind it.
bool readQuoted(std::string_view line, std::size_t& position, std::string& field) {
  for (; position < line.size(); ++position) {
    if (line[position] != '"') {
      field += line[position];
    } else if (position + 1 < line.size() && line[position + 1] == '"') {
      field += line[position++];
    } else {
      ++position;
      return true;
    }
  }
  return false;
}

// Quoted where splitCSV() would take it for something else.
void appendField(std::string& line, std::string_view text) {
  const bool isPlain = text.find_first_of("\",") == std::string_view::npos && trimmed(text) == text;
  if (isPlain) {
    line += text;
    return;
  }
  line += '"';
  for (const char c : text) line += c == '"' ? std::string(2, c) : std::string(1, c);
  line += '"';
}

}  // namespace

bool splitCSV(std::string_view line, std::vector<std::string>& fields) {
  fields.clear();
  for (std::size_t position = 0;;) {
    position = std::min(line.find_first_not_of(" \t", position), line.size());
    std::string& field = fields.emplace_back();
    const bool isQuoted = position < line.size() && line[position] == '"';
    if (isQuoted && !readQuoted(line, ++position, field)) return false;
    const std::size_t comma = std::min(line.find(',', position), line.size());
    const std::string_view rest = trimmed(line.substr(position, comma - position));
    if (isQuoted ? !rest.empty() : rest.find('"') != std::string_view::npos) return false;
    field += rest;
    if (comma == line.size()) return true;
    position = comma + 1;
  }
}

ImportedLine CSVFormat::parse(std::string_view line) {
  if (trimmed(line).empty() || line.starts_with('#')) return {};
  if (!hasHeader_) {
    readHeader(line);
    return {};
  }
  if (!splitCSV(line, fields_)) return {{}, kBadQuotes};
  VerdictEntry entry({}, record_);
  if (const std::string_view reason = readKey(entry.first); !reason.empty()) return {{}, reason};
  if (const std::string_view reason = fill(entry.second); !reason.empty()) return {{}, reason};
  ImportedLine result;
  result.entries.push_back(std::move(entry));
  return result;
}

void CSVFormat::readHeader(std::string_view line) {
  const std::string_view keyName = subject_ == CSVSubject::url ? "url" : "hash";
  const std::array<std::string_view, columnCount> names{keyName, "verdict", "name",  "prevalence",
                                                        "ttl",   "source",  "added", "categories"};
  hasHeader_ = true;
  const bool isSound = splitCSV(line, fields_);
  for (std::size_t i = 0; isSound && i < fields_.size(); ++i) {
    const auto* const known = std::find(names.begin(), names.end(), asciiLowercase(fields_[i]));
    if (known == names.end()) continue;
    std::size_t& position = positions_[static_cast<std::size_t>(known - names.begin())];
    if (position != kNowhere) failure_ = "the column \"" + std::string(*known) + "\" is there twice";
    position = i;
  }
  if (positions_[key] == kNowhere)
    failure_ = "its first line names no column \"" + std::string(keyName) + "\"";
}

std::string_view CSVFormat::field(Column column) const {
  const std::size_t position = positions_[column];
  return position < fields_.size() ? std::string_view(fields_[position]) : std::string_view();
}

std::string_view CSVFormat::readKey(VerdictKey& result) const {
  if (subject_ == CSVSubject::file) return readHash(field(key), result);
  std::optional<std::string> url = urlKey(field(key));
  if (!url) return kNotAURL;
  result = *std::move(url);
  return {};
}

std::string_view CSVFormat::fill(StoredURLVerdict& record) const {
  if (!field(verdict).empty()) record.verdict = field(verdict);
  if (!isSafetyVerdictValue(record.verdict)) return kNoVerdict;
  if (!field(name).empty()) record.infectionName = field(name);
  if (!field(source).empty()) record.source = field(source);
  if (!isRecordText(record.infectionName.value_or("")) || !isRecordText(record.source)) return kBadText;
  if (!field(prevalence).empty() && !readNumber(field(prevalence), record.prevalence)) return kBadNumber;
  if (!field(ttl).empty() && !readNumber(field(ttl), record.ttl)) return kBadNumber;
  if (!field(added).empty() && !readNumber(field(added), record.added)) return kBadNumber;
  return subject_ == CSVSubject::url ? fillCategories(record) : std::string_view();
}

std::string_view CSVFormat::fillCategories(StoredURLVerdict& record) const {
  if (field(categories).empty()) return {};
  auto listed = categoriesFromText(field(categories));
  if (!listed) return kBadCategories;
  record.categories = *std::move(listed);
  return {};
}

std::string csvHeader(CSVSubject subject) {
  return subject == CSVSubject::url ? "url,verdict,name,prevalence,ttl,source,added,categories\n"
                                    : "hash,verdict,name,prevalence,ttl,source,added\n";
}

std::string csvLine(const VerdictEntry& entry) {
  const auto& [key, record] = entry;
  if (!isRecordText(record.verdict) || !isRecordText(record.infectionName.value_or("")) ||
      !isRecordText(record.source))
    return {};
  std::string line;
  appendField(line, textFromKey(key));
  for (const std::string& text :
       {record.verdict, record.infectionName.value_or(""), std::to_string(record.prevalence),
        std::to_string(record.ttl), record.source, std::to_string(record.added)}) {
    line += ',';
    appendField(line, text);
  }
  if (std::holds_alternative<std::string>(key)) line += ',' + textFromCategories(record.categories);
  return line + '\n';
}

}  // namespace qm::qmverdicts
