#include "companions/wisp_address.hpp"

#include "companions/verdict_store.hpp"
#include "foundation/strings.hpp"

namespace qm {

namespace {

constexpr std::string_view kDataPrefix = "data:";
constexpr std::string_view kFilePrefix = "file:";

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

std::optional<std::string> withoutPercentEncodings(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '%') {
      const int high = i + 2 < text.size() ? hexDigit(text[i + 1]) : -1;
      const int low = i + 2 < text.size() ? hexDigit(text[i + 2]) : -1;
      if (high < 0 || low < 0) return std::nullopt;
      c = static_cast<char>(high * 16 + low);
      i += 2;
    }
    if (c == '\0') return std::nullopt;
    decoded += c;
  }
  return decoded;
}

// Of what follows "file:".
std::optional<FilePath> filePath(std::string_view rest) {
  if (rest.find_first_of("?#") != std::string_view::npos) return std::nullopt;
  if (rest.starts_with("//")) {
    rest.remove_prefix(2);
    const std::size_t slash = rest.find('/');
    if (slash == std::string_view::npos) return std::nullopt;
    const std::string host = asciiLowercase(rest.substr(0, slash));
    if (!host.empty() && host != "localhost") return std::nullopt;
    rest.remove_prefix(slash);
  }
  if (!rest.starts_with('/')) return std::nullopt;
  std::optional<std::string> path = withoutPercentEncodings(rest);
  return path ? std::optional(FilePath{std::move(*path)}) : std::nullopt;
}

}  // namespace

std::optional<WispAddress> wispAddress(const URL& url) {
  const std::string_view text = url.absoluteString();
  const std::string scheme = asciiLowercase(text.substr(0, kDataPrefix.size()));
  const std::string_view rest = text.substr(scheme.size());
  if (scheme == kFilePrefix) return filePath(rest);
  if (scheme != kDataPrefix) return WebURL{std::string(text)};
  return rest.starts_with("//") ? sha1FromHex(rest.substr(2)) : std::nullopt;
}

}  // namespace qm
