#include "platform/url.hpp"

#include <uriparser/Uri.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>

namespace qm {
namespace {

// A parsed URI; its ranges point into the parsed text.
class ParsedURI {
 public:
  explicit ParsedURI(std::string_view text) {
    const char* errorPosition = nullptr;
    isValid_ =
        uriParseSingleUriExA(&uri_, text.data(), text.data() + text.size(), &errorPosition) == URI_SUCCESS;
  }
  ~ParsedURI() {
    if (isValid_) uriFreeUriMembersA(&uri_);
  }
  ParsedURI(const ParsedURI&) = delete;
  ParsedURI& operator=(const ParsedURI&) = delete;

  bool isValid() const { return isValid_; }
  std::optional<std::string> host() const {
    if (uri_.hostText.first == nullptr) return std::nullopt;
    return std::string(uri_.hostText.first, uri_.hostText.afterLast);
  }

 private:
  UriUriA uri_{};
  bool isValid_ = false;
};

constexpr std::string_view kOtherLiteralCharacters = "!$&'()*+,;=:";

bool isUnreserved(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("-._~").find(c) != std::string_view::npos;
}

// The content of an IP literal: the characters of a host and ":", not checked as an address; a zone only
// behind "%25" and of unreserved characters.
bool isLiteralContent(std::string_view content) {
  const std::size_t percent = content.find('%');
  const std::string_view address = content.substr(0, percent);
  if (!std::all_of(address.begin(), address.end(), [](char c) {
        return isUnreserved(c) || kOtherLiteralCharacters.find(c) != std::string_view::npos;
      }))
    return false;
  if (percent == std::string_view::npos) return true;
  const std::string_view zone = content.substr(percent);
  return zone.starts_with("%25") && std::all_of(zone.begin() + 3, zone.end(), isUnreserved);
}

// The range of an IP literal's content, between the brackets, in a text with an authority.
struct Literal {
  std::size_t begin = 0;
  std::size_t length = 0;
};

std::optional<Literal> findLiteral(std::string_view text) {
  const std::size_t slashes = text.find("//");
  if (slashes == std::string_view::npos || text.find_first_of("/?#") != slashes) return std::nullopt;
  // Behind a scheme or at the start, nothing else.
  if (slashes != 0 && text[slashes - 1] != ':') return std::nullopt;
  const std::size_t begin = slashes + 2;
  const std::size_t end = std::min(text.find_first_of("/?#", begin), text.size());
  const std::string_view authority = text.substr(begin, end - begin);
  const std::size_t at = authority.rfind('@');
  const std::size_t host = at == std::string_view::npos ? 0 : at + 1;
  const std::size_t close = authority.find(']', host);
  if (host >= authority.size() || authority[host] != '[' || close == std::string_view::npos)
    return std::nullopt;
  return Literal{begin + host + 1, close - host - 1};
}

// A ":" that comes only behind an "@" separates no scheme: the text is a relative reference, although its
// first segment has a colon.
bool isRelativeWithColon(std::string_view text) {
  const std::size_t first = text.find_first_of("/?#[]@:");
  return first != std::string_view::npos && text[first] == '@';
}

// What stays as it is in the path of a file URL, as the home platform writes it.
bool isUnescapedInFileURL(char c) {
  return isUnreserved(c) || std::string_view("!$&'()*+,/:=@").find(c) != std::string_view::npos;
}

}  // namespace

URL URL::fileURLWithPath(std::string_view path) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::error_code error;
  std::string absolute = std::filesystem::absolute(path, error).string();
  while (absolute.size() > 1 && absolute.back() == '/') absolute.pop_back();
  std::string text = "file://";
  for (const char c : absolute) {
    if (isUnescapedInFileURL(c)) {
      text += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    text += {'%', kDigits[byte >> 4U], kDigits[byte & 0xFU]};
  }
  return URL(std::move(text), std::string());
}

std::optional<URL> URL::create(std::string_view text) {
  if (isRelativeWithColon(text)) {
    const std::string spelledRelative = "./" + std::string(text);
    if (!ParsedURI(spelledRelative).isValid()) return std::nullopt;
    return URL(std::string(text), std::nullopt);
  }
  if (const std::optional<Literal> literal = findLiteral(text)) {
    const std::string_view content = text.substr(literal->begin, literal->length);
    if (!isLiteralContent(content)) return std::nullopt;
    // The library insists on a valid address in the brackets: it gets one in place of what stands there.
    std::string withAddress(text);
    withAddress.replace(literal->begin, literal->length, "::");
    if (!ParsedURI(withAddress).isValid()) return std::nullopt;
    return URL(std::string(text), std::string(content));
  }
  // A string view that was default-made has no address for the library to start at.
  const ParsedURI parsed(text.data() == nullptr ? std::string_view("") : text);
  if (!parsed.isValid()) return std::nullopt;
  return URL(std::string(text), parsed.host());
}

}  // namespace qm
