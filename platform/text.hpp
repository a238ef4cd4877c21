// Unicode text operations: case, comparison, regular expressions. Texts are UTF-8.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "foundation/error.hpp"

namespace qm {

// Full Unicode lower case, independent of the locale (final sigma; U+0130 becomes two code points).
std::string lowercaseString(std::string_view text);
// Full case folding and canonical equivalence, independent of the locale ("straße" equals "STRASSE").
bool equalsIgnoringCase(std::string_view a, std::string_view b);
// Ascending order without options: by code point of the decomposed text; -1, 0, 1.
int compareStrings(std::string_view a, std::string_view b);

// The regular expressions of ICU.
class RegularExpression {
 public:
  // Null for an invalid pattern, with NSCocoaErrorDomain 2048 `The value “PATTERN” is invalid.`.
  static std::unique_ptr<RegularExpression> create(std::string_view pattern, bool caseInsensitive,
                                                   ErrorPtr* error = nullptr);
  ~RegularExpression();

  // Replaces every match; `$0` in the replacement is the whole match, a literal `$` or backslash has a
  // backslash in front. Stores the number of replacements. Any thread.
  std::string stringByReplacingMatches(std::string_view text, std::string_view replacement,
                                       std::size_t& count) const;

 private:
  struct Pattern;
  explicit RegularExpression(std::unique_ptr<Pattern> pattern);
  std::unique_ptr<Pattern> pattern_;
};

}  // namespace qm
