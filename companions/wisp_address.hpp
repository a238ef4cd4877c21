// What the URL of a Wisp call is about: the content of a file by its hash, a file by its path, or something
// on the web.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "platform/digest.hpp"
#include "platform/url.hpp"

namespace qm {

struct FilePath {
  std::string path;  // absolute; bytes, as the system takes them
  friend bool operator==(const FilePath&, const FilePath&) = default;
};
struct WebURL {
  std::string text;
  friend bool operator==(const WebURL&, const WebURL&) = default;
};
using WispAddress = std::variant<SHA1Value, FilePath, WebURL>;

// Nothing for a data URL that is not "data://" and 40 hexadecimal digits, and for a file URL that names no
// absolute path of this machine: one with another host than "localhost", a query, a fragment or a NUL.
std::optional<WispAddress> wispAddress(const URL& url);

}  // namespace qm
