#include "settings/QMRCustomizationLanguagesProvider.hpp"

#include <utility>

#include "platform/preferred_languages.hpp"

QMRCustomizationLanguagesProvider::QMRCustomizationLanguagesProvider(std::string languagesFilePath)
    : languagesFilePath_(std::move(languagesFilePath)) {}

std::vector<std::string> QMRCustomizationLanguagesProvider::preferredLanguages() const {
  return qm::preferredLanguages();
}
