// A URL as text that was checked against RFC 3986. Invalid characters are not encoded: they make it no URL.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qm {

class URL {
 public:
  // Nothing when the text is not a URI reference. The empty text is one. Spelling is kept: no case change, no
  // removal of dot segments.
  static std::optional<URL> create(std::string_view text);
  // The file URL of a file that is no folder; a relative path starts at the current directory. Nobody looks
  // whether there is such a file.
  static URL fileURLWithPath(std::string_view path);

  const std::string& absoluteString() const { return text_; }
  // Nothing when there is no authority.
  const std::optional<std::string>& host() const { return host_; }
  const std::string& description() const { return text_; }

 private:
  URL(std::string text, std::optional<std::string> host) : text_(std::move(text)), host_(std::move(host)) {}
  std::string text_;
  std::optional<std::string> host_;
};

}  // namespace qm
