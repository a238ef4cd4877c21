#include "settings/QMRCustomizationLanguagesProvider.hpp"

#include <utility>

#include "foundation/log.hpp"
#include "platform/file_io.hpp"
#include "platform/preferred_languages.hpp"
#include "platform/property_list.hpp"
#include "platform/system_root.hpp"
#include "settings/QMRNamespace.hpp"

namespace {

qm::Log& log() {
  static qm::Log& log = qm::Log::create(qm::kQMRLogSubsystem, "QMRCustomizationLanguagesProvider");
  return log;
}

}  // namespace

QMRCustomizationLanguagesProvider::QMRCustomizationLanguagesProvider(std::string languagesFilePath)
    : languagesFilePath_(std::move(languagesFilePath)) {}

std::vector<std::string> QMRCustomizationLanguagesProvider::preferredLanguages() const {
  return qm::preferredLanguages();
}

std::optional<qm::Dictionary> QMRCustomizationLanguagesProvider::languagesDocument() const {
  const std::string path = qm::hostPath(QMRNamespace::namespacedWithPath(languagesFilePath_));
  qm::ErrorPtr error;
  const std::optional<std::string> text = qm::readTextFile(path, &error);
  std::optional<qm::Value> document;
  if (text) document = qm::parsePropertyList(text->data(), text->size(), &error);
  if (qm::Dictionary* const dictionary = document ? document->as<qm::Dictionary>() : nullptr)
    return std::move(*dictionary);
  if (document)
    error = qm::makeError(qm::kCocoaErrorDomain, qm::kPropertyListReadCorrupt,
                          {{qm::kDebugDescriptionKey, "The property list is no dictionary"}});
  QM_LOG_ERROR(log(), "Error reading languages file: %{public}@", error);
  return std::nullopt;
}

std::optional<std::string> QMRCustomizationLanguagesProvider::defaultCustomizationLanguage() const {
  const std::optional<qm::Dictionary> document = languagesDocument();
  const std::string* const tag = document ? qm::find<std::string>(*document, "default") : nullptr;
  return tag == nullptr ? std::nullopt : std::optional(*tag);
}

std::vector<std::string> QMRCustomizationLanguagesProvider::availableCustomizationLanguages() const {
  const std::optional<qm::Dictionary> document = languagesDocument();
  const qm::Array* const languages = document ? qm::find<qm::Array>(*document, "languages") : nullptr;
  if (languages == nullptr) return {};
  std::vector<std::string> tags;
  for (const qm::Value& language : *languages)
    if (const std::string* const tag = language.as<std::string>()) tags.push_back(*tag);
  return tags;
}
