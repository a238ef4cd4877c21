#include "platform/preferred_languages.hpp"

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "foundation/strings.hpp"

namespace qm {
namespace {

std::string_view variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string_view() : std::string_view(value);
}

// "fr_CA.UTF-8@euro" is "fr-CA"; the locales without a language give the empty text.
std::string languageTag(std::string_view locale) {
  std::string tag(locale.substr(0, locale.find_first_of(".@")));
  if (tag == "C" || tag == "POSIX") return {};
  std::replace(tag.begin(), tag.end(), '_', '-');
  return tag;
}

std::string_view messageLocale() {
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"})
    if (const std::string_view value = variable(name); !value.empty()) return value;
  return {};
}

}  // namespace

std::vector<std::string> preferredLanguages() {
  const std::string_view locale = messageLocale();
  if (languageTag(locale).empty()) return {};  // LANGUAGE counts only beside a locale with a language
  std::vector<std::string> wanted = componentsSeparatedByString(variable("LANGUAGE"), ":");
  wanted.emplace_back(locale);

  std::vector<std::string> tags;
  for (const std::string& entry : wanted) {
    std::string tag = languageTag(entry);
    if (!tag.empty() && std::find(tags.begin(), tags.end(), tag) == tags.end())
      tags.push_back(std::move(tag));
  }
  return tags;
}

}  // namespace qm
