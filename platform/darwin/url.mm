#include "platform/url.hpp"

#include <algorithm>

#include "platform/darwin/foundation_value.hpp"

namespace qm {
namespace {

// The host of a text that is a URL, as it is spelled; an IP literal without its brackets. Nothing without an
// authority.
std::optional<std::string> hostIn(std::string_view text) {
  const std::size_t slashes = text.find("//");
  if (slashes == std::string_view::npos || text.find_first_of("/?#") != slashes) return std::nullopt;
  // Only a scheme may stand in front; behind an "@" a ":" ends none.
  if (slashes != 0 && text.find_first_of(":@") != slashes - 1) return std::nullopt;
  std::string_view host = text.substr(slashes + 2);
  host = host.substr(0, host.find_first_of("/?#"));
  if (const std::size_t at = host.rfind('@'); at != std::string_view::npos) host = host.substr(at + 1);
  const bool isLiteral = host.starts_with('[');
  return std::string(isLiteral ? host.substr(1, host.find(']') - 1) : host.substr(0, host.find(':')));
}

}  // namespace

std::optional<URL> URL::create(std::string_view text) {
  // The framework would not see all of what is none: it drops a byte-order mark.
  if (!std::all_of(text.begin(), text.end(), [](char c) { return c > '\0' && c <= '~'; }))
    return std::nullopt;
  @autoreleasepool {
    if ([NSURL URLWithString:stringFrom(text) encodingInvalidCharacters:NO] == nil) return std::nullopt;
    return URL(std::string(text), hostIn(text));
  }
}

URL URL::fileURLWithPath(std::string_view path) {
  @autoreleasepool {
    NSURL* url = [NSURL fileURLWithPath:stringFrom(path) isDirectory:NO];
    return URL(textFrom(url.absoluteString), std::string());
  }
}

}  // namespace qm
