// The languages a customization chooses from: those of the system's user, and those that the product comes
// with.
//
// The file of the latter is a property list, a dictionary of "default", a language tag, and "languages", an
// array of them in the order of the product's menus. It is read anew with each question; one that cannot be
// read is logged and counts as absent.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "foundation/value.hpp"

class QMRCustomizationLanguagesProvider {
 public:
  // The product path of the file that lists the product's languages, before the namespace.
  explicit QMRCustomizationLanguagesProvider(std::string languagesFilePath);
  virtual ~QMRCustomizationLanguagesProvider() = default;
  QMRCustomizationLanguagesProvider(const QMRCustomizationLanguagesProvider&) = delete;
  QMRCustomizationLanguagesProvider& operator=(const QMRCustomizationLanguagesProvider&) = delete;

  // The system's preferred languages as tags ("fr-CA"), the most wanted first; may be empty.
  virtual std::vector<std::string> preferredLanguages() const;

  // What the file holds.
  std::optional<qm::Dictionary> languagesDocument() const;
  std::optional<std::string> defaultCustomizationLanguage() const;
  // Without what is no text; empty when nothing is listed.
  std::vector<std::string> availableCustomizationLanguages() const;

 private:
  const std::string languagesFilePath_;
};
