// The keys of the verdict store's URL records: one spelling for all spellings that mean the same.
//
// A host's key stands for the host and for every host below it: "example.com" also for "www.example.com".
// Letters are lower-case, names of other alphabets in their ASCII form (UTS #46), a dot at the end is left
// out. Addresses stand for themselves: IPv4 in dotted decimals whatever notation a browser takes, IPv6 in
// brackets (RFC 5952).
//
// A URL's key stands for that URL alone: scheme and host in lower case, no user information, no fragment, no
// port when it is the scheme's own, dot segments resolved, "/" for an empty path, percent-encodings of
// unreserved characters decoded and others in upper case (RFC 3986, section 6.2.2). The query stays as it is
// otherwise.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qm {

// Bytes. Longer URLs have no key of their own.
inline constexpr std::size_t kMaximumURLKeyLength = 8192;

// The key of a host name or address as people write it; nothing for any other text.
std::optional<std::string> hostKey(std::string_view host);

// The key of a URL with scheme and host, or of a host name or address alone; nothing for any other text.
std::optional<std::string> urlKey(std::string_view text);

// The keys of the records that may tell about the URL (or host name alone), the closest first: that of the
// URL, of its host, of the domains above it. Empty when the text has no host.
std::vector<std::string> urlLookupKeys(std::string_view text);

}  // namespace qm
