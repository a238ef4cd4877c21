// The languages a customization chooses from.
#pragma once

#include <string>
#include <vector>

class QMRCustomizationLanguagesProvider {
 public:
  // The product path of the file that lists the product's languages.
  explicit QMRCustomizationLanguagesProvider(std::string languagesFilePath);
  virtual ~QMRCustomizationLanguagesProvider() = default;
  QMRCustomizationLanguagesProvider(const QMRCustomizationLanguagesProvider&) = delete;
  QMRCustomizationLanguagesProvider& operator=(const QMRCustomizationLanguagesProvider&) = delete;

  const std::string& languagesFilePath() const { return languagesFilePath_; }

  // The system's preferred languages as tags ("fr-CA"), the most wanted first; may be empty.
  virtual std::vector<std::string> preferredLanguages() const;

 private:
  const std::string languagesFilePath_;
};
