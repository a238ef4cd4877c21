// TOML text from outside: parsed within bounds, and the places in it that the parser names.
#pragma once

#include <toml++/toml.h>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/error.hpp"
#include "foundation/value.hpp"

namespace qm {

inline constexpr std::size_t kLargestTomlText = 256 * 1024;  // bytes
// Arrays and tables inside each other, and the parts of a dotted key.
inline constexpr std::size_t kDeepestTomlNesting = 16;

// Nothing with SettingsError::broken, whose text begins with the place ("line 3, column 5: "), for what is
// not UTF-8, too large, nested too deeply or not TOML. A byte-order mark at the start is passed over.
std::optional<toml::table> parseToml(std::string_view text, ErrorPtr* error);

// The place in the text that is to blame.
ErrorPtr makeTomlError(const toml::source_position& place, std::string_view problem);

// Nothing with SettingsError::broken for what has no counterpart: dates and times without an offset, numbers
// that are not finite, texts with a NUL, and more than the levels above inside the node.
std::optional<Value> valueFromToml(const toml::node& node, ErrorPtr* error);

// The value as it can stand behind "=", on one line if it is short; nothing for one that TOML cannot hold
// (null, data, uuids, errors, numbers past the signed 64 bits or not finite, texts that are not UTF-8).
std::optional<std::string> tomlLiteral(const Value& value);
// The key as it can stand before "=": bare where that is allowed.
std::string tomlKey(std::string_view key);

// Byte offsets of the parser's places.
class TomlPlaces {
 public:
  // The text must outlive this object.
  explicit TomlPlaces(std::string_view text);

  std::size_t offset(const toml::source_position& place) const;
  // Of the first byte of the line, and of its line end (or the text's end).
  std::size_t lineStart(std::size_t offset) const;
  std::size_t lineEnd(std::size_t offset) const;

 private:
  const std::string_view text_;
  std::vector<std::size_t> lines_;
  std::vector<std::size_t> characters_;  // of each the first byte: a line may be the whole text
};

}  // namespace qm
