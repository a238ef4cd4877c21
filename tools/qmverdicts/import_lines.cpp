#include "tools/qmverdicts/import_lines.hpp"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <system_error>
#include <utility>

#include "companions/url_categories.hpp"
#include "companions/url_key.hpp"
#include "foundation/strings.hpp"

namespace qm::qmverdicts {

namespace {

constexpr std::string_view kNoAddress = "does not begin with an address";
constexpr std::string_view kNoName = "no host name behind the address";
constexpr std::string_view kRealAddress = "the address of a real host";
constexpr std::string_view kNotAHost = "not a host name";
constexpr std::string_view kNotAURL = "no URL with a host and no host name";
constexpr std::string_view kBadQuotes = "quotes out of place";
constexpr std::string_view kNoVerdict = "no known verdict";
constexpr std::string_view kBadName = "an infection name of more than 255 bytes or not UTF-8";
constexpr std::string_view kBadNumber = "a prevalence or ttl that is no number in its range";
constexpr std::string_view kBadCategories = "categories that are no list of names";

constexpr std::size_t kMaximumNameLength = 255;

// The addresses that block lists give to what they block (as keys).
constexpr std::array<std::string_view, 4> kNowhereAddresses{"0.0.0.0", "127.0.0.1", "[::]", "[::1]"};
constexpr std::array<std::string_view, 12> kOwnNames{
    "localhost",    "localhost.localdomain", "localhost4",    "localhost6",
    "local",        "broadcasthost",         "ip6-localhost", "ip6-loopback",
    "ip6-localnet", "ip6-mcastprefix",       "ip6-allnodes",  "ip6-allrouters"};

template <std::size_t Count>
bool has(const std::array<std::string_view, Count>& texts, std::string_view text) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

bool isAddressKey(std::string_view key) {
  return key.starts_with('[') || key.find_first_not_of("0123456789.") == std::string_view::npos;
}

bool isSpace(char c) {
  return c == ' ' || c == '\t';
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  return text;
}

// Takes the next word off the text; empty at its end.
std::string_view nextWord(std::string_view& text) {
  text = trimmed(text);
  const auto end = std::find_if(text.begin(), text.end(), isSpace);
  const std::string_view word = text.substr(0, static_cast<std::size_t>(end - text.begin()));
  text.remove_prefix(word.size());
  return word;
}

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

}  // namespace

ImportedLine HostsFormat::parse(std::string_view line) {
  line = line.substr(0, line.find('#'));
  const std::string_view address = nextWord(line);
  if (address.empty()) return {};
  const std::optional<std::string> addressKey = hostKey(address);
  if (!addressKey || !isAddressKey(*addressKey)) return {{}, kNoAddress};
  ImportedLine result;
  bool isNamed = false;
  for (std::string_view word = nextWord(line); !word.empty(); word = nextWord(line)) {
    isNamed = true;
    std::optional<std::string> key = hostKey(word);
    if (!key) return {{}, kNotAHost};
    if (!has(kOwnNames, *key) && !isAddressKey(*key)) result.entries.emplace_back(*std::move(key), record_);
  }
  if (!isNamed) return {{}, kNoName};
  if (!result.entries.empty() && !has(kNowhereAddresses, *addressKey)) return {{}, kRealAddress};
  return result;
}

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
  std::optional<std::string> key = urlKey(field(url));
  if (!key) return {{}, kNotAURL};
  StoredURLVerdict record = record_;
  if (const std::string_view reason = fill(record); !reason.empty()) return {{}, reason};
  ImportedLine result;
  result.entries.emplace_back(*std::move(key), std::move(record));
  return result;
}

void CSVFormat::readHeader(std::string_view line) {
  constexpr std::array<std::string_view, columnCount> kNames{"url",        "verdict", "name",
                                                             "prevalence", "ttl",     "categories"};
  hasHeader_ = true;
  const bool isSound = splitCSV(line, fields_);
  for (std::size_t i = 0; isSound && i < fields_.size(); ++i) {
    const auto* const known = std::find(kNames.begin(), kNames.end(), asciiLowercase(fields_[i]));
    if (known == kNames.end()) continue;
    std::size_t& position = positions_[static_cast<std::size_t>(known - kNames.begin())];
    if (position != kNowhere) failure_ = "the column \"" + std::string(*known) + "\" is there twice";
    position = i;
  }
  if (positions_[url] == kNowhere) failure_ = "its first line names no column \"url\"";
}

std::string_view CSVFormat::field(Column column) const {
  const std::size_t position = positions_[column];
  return position < fields_.size() ? std::string_view(fields_[position]) : std::string_view();
}

std::string_view CSVFormat::fill(StoredURLVerdict& record) const {
  if (!field(verdict).empty()) record.verdict = field(verdict);
  if (!isSafetyVerdictValue(record.verdict)) return kNoVerdict;
  if (!field(name).empty()) record.infectionName = field(name);
  if (record.infectionName &&
      (record.infectionName->size() > kMaximumNameLength || !isValidUTF8(*record.infectionName)))
    return kBadName;
  if (!field(prevalence).empty() && !readNumber(field(prevalence), record.prevalence)) return kBadNumber;
  if (!field(ttl).empty() && !readNumber(field(ttl), record.ttl)) return kBadNumber;
  if (field(categories).empty()) return {};
  auto listed = categoriesFromText(field(categories));
  if (!listed) return kBadCategories;
  record.categories = *std::move(listed);
  return {};
}

}  // namespace qm::qmverdicts
