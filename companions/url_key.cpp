#include "companions/url_key.hpp"

#include <arpa/inet.h>
#include <unicode/uidna.h>
#include <uriparser/Uri.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <utility>

#include "foundation/strings.hpp"

namespace qm {

namespace {

// Of a host name in its ASCII form (RFC 1035, section 2.3.4).
constexpr std::size_t kMaximumHostLength = 253;

constexpr std::array<std::pair<std::string_view, std::string_view>, 5> kDefaultPorts{
    {{"http", "80"}, {"https", "443"}, {"ftp", "21"}, {"ws", "80"}, {"wss", "443"}}};

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// What may stand in a host name that somebody wrote down: letters, digits, "-" and "_", labels that are not
// empty.
bool isHostName(std::string_view name) {
  if (name.empty() || name.front() == '.' || name.back() == '.') return false;
  if (name.find("..") != std::string_view::npos) return false;
  return std::all_of(name.begin(), name.end(), [](char c) {
    return isDigit(c) || (c >= 'a' && c <= 'z') || c == '-' || c == '_' || c == '.';
  });
}

// A last label that is a number, decimal or hexadecimal, makes an IPv4 address of a host
// (https://url.spec.whatwg.org).
bool endsInNumber(std::string_view host) {
  const std::size_t dot = host.rfind('.');
  std::string_view last = dot == std::string_view::npos ? host : host.substr(dot + 1);
  if (last.empty()) return false;
  if (std::all_of(last.begin(), last.end(), isDigit)) return true;
  if (!last.starts_with("0x")) return false;
  last.remove_prefix(2);
  return last.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

std::optional<std::string> ipv6Key(const std::string& address) {
  in6_addr parsed{};
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (inet_pton(AF_INET6, address.c_str(), &parsed) != 1 ||
      inet_ntop(AF_INET6, &parsed, text.data(), text.size()) == nullptr)
    return std::nullopt;
  return "[" + std::string(text.data()) + "]";
}

// Also the short, octal and hexadecimal notations.
std::optional<std::string> ipv4Key(const std::string& address) {
  in_addr parsed{};
  std::array<char, INET_ADDRSTRLEN> text{};
  if (address.find_first_not_of("0123456789abcdefx.") != std::string::npos ||
      inet_aton(address.c_str(), &parsed) == 0 ||
      inet_ntop(AF_INET, &parsed, text.data(), text.size()) == nullptr)
    return std::nullopt;
  return std::string(text.data());
}

const UIDNA* nameMapping() {
  static const UIDNA* const mapping = [] {
    UErrorCode status = U_ZERO_ERROR;
    const UIDNA* const opened = uidna_openUTS46(UIDNA_NONTRANSITIONAL_TO_ASCII, &status);
    // The data is compiled into the library.
    if (U_FAILURE(status)) std::abort();
    return opened;
  }();
  return mapping;
}

// The ASCII form of a name; nothing when it has none. Hyphens anywhere are in use and are let through.
std::optional<std::string> asciiForm(std::string_view name) {
  constexpr std::uint32_t kTolerated =
      UIDNA_ERROR_LEADING_HYPHEN | UIDNA_ERROR_TRAILING_HYPHEN | UIDNA_ERROR_HYPHEN_3_4;
  std::array<char, 2 * kMaximumHostLength> result{};
  UIDNAInfo info = UIDNA_INFO_INITIALIZER;
  UErrorCode status = U_ZERO_ERROR;
  const std::int32_t length =
      uidna_nameToASCII_UTF8(nameMapping(), name.data(), static_cast<std::int32_t>(name.size()),
                             result.data(), static_cast<std::int32_t>(result.size()), &info, &status);
  if (U_FAILURE(status) || (info.errors & ~kTolerated) != 0) return std::nullopt;
  return std::string(result.data(), static_cast<std::size_t>(length));
}

struct Host {
  std::string key;
  bool isAddress = false;
};

// Characters that no host has (https://url.spec.whatwg.org, forbidden host code points).
bool hasForbiddenCharacter(std::string_view name) {
  return std::any_of(name.begin(), name.end(), [](char c) {
    const auto code = static_cast<unsigned char>(c);
    return code <= 0x20 || code == 0x7f ||
           std::string_view("#/:<>?@[\\]^|%").find(c) != std::string_view::npos;
  });
}

// Of the host part of a URL, without brackets. Most names that break a rule still have a key: the domains
// above them must be found.
std::optional<Host> hostFrom(std::string name) {
  if (const auto address = ipv6Key(name)) return Host{*address, true};
  if (name.size() > 4 * kMaximumHostLength || hasForbiddenCharacter(name)) return std::nullopt;
  name = asciiForm(name).value_or(asciiLowercase(name));
  if (name.ends_with('.')) name.pop_back();
  if (endsInNumber(name)) {
    if (const auto address = ipv4Key(name)) return Host{*address, true};
  }
  if (name.empty() || name.size() > kMaximumHostLength) return std::nullopt;
  return Host{std::move(name), false};
}

// Not every name that is looked up: what ends in a number and is no address is a mistake.
bool isStorable(std::string_view name) {
  return isHostName(name) && !endsInNumber(name);
}

std::optional<Host> hostWrittenAlone(std::string_view text) {
  const bool isBracketed = text.size() > 2 && text.front() == '[' && text.back() == ']';
  std::optional<Host> host = hostFrom(std::string(isBracketed ? text.substr(1, text.size() - 2) : text));
  if (!host || (isBracketed && !host->key.starts_with('['))) return std::nullopt;
  return host->isAddress || isStorable(host->key) ? host : std::nullopt;
}

// A URI that was parsed and, but for its host, normalised. Its ranges point into the text it was made from.
class ParsedURI {
 public:
  explicit ParsedURI(std::string_view text) {
    const char* errorPosition = nullptr;
    isParsed_ =
        uriParseSingleUriExA(&uri_, text.data(), text.data() + text.size(), &errorPosition) == URI_SUCCESS;
    isValid_ = isParsed_ && uriNormalizeSyntaxExA(&uri_, URI_NORMALIZE_SCHEME | URI_NORMALIZE_PATH |
                                                             URI_NORMALIZE_QUERY) == URI_SUCCESS;
  }
  ~ParsedURI() {
    if (isParsed_) uriFreeUriMembersA(&uri_);
  }
  ParsedURI(const ParsedURI&) = delete;
  ParsedURI& operator=(const ParsedURI&) = delete;

  bool isValid() const { return isValid_; }
  std::string scheme() const { return textOf(uri_.scheme); }
  // Percent-encodings decoded.
  std::optional<Host> host() const {
    std::string name = textOf(uri_.hostText);
    if (name.empty()) return std::nullopt;
    // In place; the terminator is the string's own.
    const char* const end = uriUnescapeInPlaceA(name.data());
    name.resize(static_cast<std::size_t>(end - name.data()));
    return hostFrom(std::move(name));
  }
  // With the colon in front; empty for the scheme's own.
  std::string port() const {
    const std::string digits = textOf(uri_.portText);
    const std::size_t first = digits.find_first_not_of('0');
    if (digits.empty()) return {};
    const std::string port = first == std::string::npos ? "0" : digits.substr(first);
    const bool isDefault =
        std::find(kDefaultPorts.begin(), kDefaultPorts.end(),
                  std::pair<std::string_view, std::string_view>(scheme(), port)) != kDefaultPorts.end();
    return isDefault ? std::string() : ":" + port;
  }
  std::string pathAndQuery() const {
    std::string text;
    for (const UriPathSegmentA* segment = uri_.pathHead; segment != nullptr; segment = segment->next)
      text += "/" + textOf(segment->text);
    if (text.empty()) text = "/";
    return uri_.query.first == nullptr ? text : text + "?" + textOf(uri_.query);
  }

 private:
  static std::string textOf(const UriTextRangeA& range) {
    return range.first == nullptr ? std::string() : std::string(range.first, range.afterLast);
  }
  UriUriA uri_{};
  bool isParsed_ = false;
  bool isValid_ = false;
};

struct Names {
  std::string url;  // empty when it has no key
  Host host;
};

std::optional<Names> namesOf(std::string_view text) {
  const std::size_t slashes = text.find("//");
  if (slashes == std::string_view::npos) {
    std::optional<Host> host = hostWrittenAlone(text);
    if (!host) return std::nullopt;
    return Names{{}, *std::move(host)};
  }
  const bool isTooLong = text.size() > kMaximumURLKeyLength;
  if (isTooLong) text = text.substr(0, text.find_first_of("/?#", slashes + 2));
  if (text.size() > kMaximumURLKeyLength) return std::nullopt;
  const ParsedURI uri(text);
  std::optional<Host> host = uri.isValid() ? uri.host() : std::nullopt;
  if (!host) return std::nullopt;
  const std::string scheme = uri.scheme();
  if (isTooLong || scheme.empty()) return Names{{}, *std::move(host)};
  std::string url = scheme + "://" + host->key + uri.port() + uri.pathAndQuery();
  if (url.size() > kMaximumURLKeyLength) url.clear();
  return Names{std::move(url), *std::move(host)};
}

}  // namespace

std::optional<std::string> hostKey(std::string_view host) {
  const std::optional<Host> found = hostWrittenAlone(host);
  return found ? std::optional(found->key) : std::nullopt;
}

std::optional<std::string> urlKey(std::string_view text) {
  if (text.find("//") == std::string_view::npos) return hostKey(text);
  const std::optional<Names> names = namesOf(text);
  if (!names || (!names->host.isAddress && !isStorable(names->host.key))) return std::nullopt;
  return names->url.empty() ? std::nullopt : std::optional(names->url);
}

std::vector<std::string> urlLookupKeys(std::string_view text) {
  const std::optional<Names> names = namesOf(text);
  if (!names) return {};
  std::vector<std::string> keys;
  if (!names->url.empty()) keys.push_back(names->url);
  const std::string& host = names->host.key;
  keys.push_back(host);
  if (names->host.isAddress) return keys;
  for (std::size_t dot = host.find('.'); dot != std::string::npos; dot = host.find('.', dot + 1))
    if (dot + 1 < host.size()) keys.push_back(host.substr(dot + 1));
  return keys;
}

}  // namespace qm
