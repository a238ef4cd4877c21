#include "companions/url_categories.hpp"

#include <algorithm>

namespace qm {

namespace {

// "NAME", "NAME=0" or "NAME=1".
std::optional<SVKSkyvaultCategory> categoryFrom(std::string_view word) {
  const std::size_t equals = word.find('=');
  const std::string_view name = word.substr(0, equals);
  const std::string_view value = equals == std::string_view::npos ? "1" : word.substr(equals + 1);
  if (!isCategoryName(name) || (value != "0" && value != "1")) return std::nullopt;
  return SVKSkyvaultCategory{std::string(name), value == "1"};
}

void put(std::vector<SVKSkyvaultCategory>& categories, const SVKSkyvaultCategory& category) {
  const auto same = std::find_if(categories.begin(), categories.end(), [&](const SVKSkyvaultCategory& other) {
    return other.name == category.name;
  });
  if (same == categories.end())
    categories.push_back(category);
  else
    same->value = category.value;
}

}  // namespace

bool isCategoryName(std::string_view name) {
  constexpr std::string_view kCharacters =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.";
  return !name.empty() && name.size() <= kMaximumCategoryNameLength &&
         name.find_first_not_of(kCharacters) == std::string_view::npos;
}

std::optional<std::vector<SVKSkyvaultCategory>> categoriesFromText(std::string_view text) {
  std::vector<SVKSkyvaultCategory> categories;
  for (std::size_t begin = text.find_first_not_of(' '); begin != std::string_view::npos;) {
    const std::size_t end = std::min(text.find(' ', begin), text.size());
    const std::optional<SVKSkyvaultCategory> category = categoryFrom(text.substr(begin, end - begin));
    if (!category) return std::nullopt;
    put(categories, *category);
    if (categories.size() > kMaximumCategories) return std::nullopt;
    begin = text.find_first_not_of(' ', end);
  }
  return categories;
}

std::string textFromCategories(const std::vector<SVKSkyvaultCategory>& categories) {
  std::string text;
  for (const SVKSkyvaultCategory& category : categories) {
    if (!text.empty()) text += ' ';
    text += category.name;
    if (!category.value) text += "=0";
  }
  return text;
}

}  // namespace qm
