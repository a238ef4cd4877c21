#include "tools/qmverdicts/import_lines.hpp"

#include <algorithm>
#include <array>
#include <utility>

#include "companions/url_key.hpp"

namespace qm::qmverdicts {

namespace {

constexpr std::string_view kNoAddress = "does not begin with an address";
constexpr std::string_view kNoName = "no host name behind the address";
constexpr std::string_view kRealAddress = "the address of a real host";
constexpr std::string_view kNotAHost = "not a host name";

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

}  // namespace

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

}  // namespace qm::qmverdicts
