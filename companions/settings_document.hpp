// The settings file's content: the text a person wrote, what it says, and changes to it that leave everything
// else of the text as it is.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/error.hpp"
#include "foundation/value.hpp"

namespace qm {

enum class SettingsTable : std::uint8_t { user, system };
// "user", "system".
const char* name(SettingsTable table);

struct Settings {
  Dictionary user;
  Dictionary system;
  Array allowList;  // of texts

  Dictionary& table(SettingsTable which) { return which == SettingsTable::user ? user : system; }
  friend bool operator==(const Settings&, const Settings&) = default;
};

// Values of all settings together; so a message with all of them stays well below what the transport takes.
inline constexpr std::size_t kMostSettingsValues = 16384;

class SettingsDocument {
 public:
  // No file: no settings.
  SettingsDocument() = default;
  // TOML: the tables [user] and [system], and allow-list, an array of texts that are not empty. Nothing with
  // SettingsError::broken for any other content; the error's text begins with line and column.
  static std::optional<SettingsDocument> parse(std::string text, ErrorPtr* error = nullptr);

  const std::string& text() const { return text_; }
  const Settings& settings() const { return settings_; }

  // The document with some settings of a table set, or removed where the value is null. Comments, order and
  // spacing stay. Nothing with SettingsError::badValue (keys that are empty, values that the file cannot
  // hold), noSuchSetting or notEditable.
  std::optional<SettingsDocument> withChanges(SettingsTable table, const Dictionary& changes,
                                              ErrorPtr* error = nullptr) const;
  // Entries that stay keep their place; new ones go to the end. Errors as before.
  std::optional<SettingsDocument> withAllowList(const Array& allowList, ErrorPtr* error = nullptr) const;

 private:
  std::optional<SettingsDocument> withSetting(SettingsTable table, const std::string& key, const Value& value,
                                              ErrorPtr* error) const;

  std::string text_;
  Settings settings_;
};

}  // namespace qm
