#include "settings/QMRCustomization.hpp"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <initializer_list>
#include <utility>
#include <vector>

#include "foundation/strings.hpp"
#include "platform/file_io.hpp"
#include "platform/json.hpp"
#include "platform/system_root.hpp"
#include "platform/text.hpp"
#include "settings/QMRNamespace.hpp"

namespace {

constexpr const char* kLanguagesFile = "/Library/Quillmarsh/qxmac/gui/available_languages.xml";
constexpr const char* kOperatorIdFile = "/Library/Quillmarsh/qxmac/config/operator_id";
constexpr const char* kTelemetrySourceFile = "/Library/Quillmarsh/qxmac/config/telemetry_source";
constexpr const char* kAttributionIDFile = "/Library/Quillmarsh/var/attribution_id";
constexpr const char* kTidal2File = "/Library/Quillmarsh/qxmac/config/tidal2_url";
constexpr const char* kSebeUpdateServiceFile = "/Library/Quillmarsh/qxmac/config/sebe_update_service_url";
constexpr const char* kServiceEnablerFile = "/Library/Quillmarsh/qxmac/config/se_url";
constexpr const char* kBrowsingProtectionFolder = "/Library/Quillmarsh/browsingprotection/";
constexpr const char* kImageFolder = "/Library/Quillmarsh/qxmac/gui";

constexpr const char* kDefaultTelemetrySource = "qxmac";
constexpr std::int64_t kMDROperator = 12000;

bool isOneOf(std::string_view text, std::initializer_list<std::string_view> candidates) {
  return std::find(candidates.begin(), candidates.end(), text) != candidates.end();
}

std::string namespacedHostPath(const char* productPath) {
  return qm::hostPath(QMRNamespace::namespacedWithPath(productPath));
}

std::string replacingAll(const std::string& text, std::string_view placeholder,
                         std::string_view replacement) {
  return qm::componentsJoinedByString(qm::componentsSeparatedByString(text, placeholder), replacement);
}

// Of "#RRGGBB"; nothing for any other text.
std::optional<QMRCustomization::Color> colorOfHex(std::string_view text) {
  if (text.size() != 7 || !text.starts_with('#')) return std::nullopt;
  std::uint32_t digits = 0;
  const char* const end = text.data() + text.size();
  if (std::from_chars(text.data() + 1, end, digits, 16).ptr != end) return std::nullopt;
  const auto part = [digits](int shift) { return ((digits >> shift) & 0xFF) / 255.0; };
  return QMRCustomization::Color{.red = part(16), .green = part(8), .blue = part(0)};
}

std::optional<std::string> styleConstant(const qm::Dictionary& customization, std::string_view name) {
  const qm::Dictionary* const constants = qm::find<qm::Dictionary>(customization, "styleConstants");
  const std::string* const text = constants == nullptr ? nullptr : qm::find<std::string>(*constants, name);
  return text == nullptr ? std::nullopt : std::optional(*text);
}

// The colour itself, or that of the style constant it names.
std::optional<std::string> hexOfCuifColor(const qm::Dictionary& customization, const std::string& color) {
  if (colorOfHex(color)) return color;
  std::optional<std::string> constant = styleConstant(customization, color);
  return constant && colorOfHex(*constant) ? std::move(constant) : std::nullopt;
}

// "fr" of "fr-CA".
std::string firstPart(const std::string& languageTag) {
  return languageTag.substr(0, languageTag.find('-'));
}

}  // namespace

QMRCustomization::QMRCustomization(std::shared_ptr<QMRCustomizationConfiguration> configuration,
                                   std::shared_ptr<QMRCustomizationLanguagesProvider> languagesProvider)
    : log_(qm::Log::create(qm::kQMRLogSubsystem, "QMRCustomization")),
      configuration_(configuration ? std::move(configuration)
                                   : std::make_shared<QMRCustomizationConfiguration>()),
      languagesProvider_(languagesProvider
                             ? std::move(languagesProvider)
                             : std::make_shared<QMRCustomizationLanguagesProvider>(kLanguagesFile)) {}

// --- The parameters file ---

std::optional<QMRCustomization::Parameters> QMRCustomization::configParameters() const {
  return configParametersFromPath(QMRNamespace::namespacedWithPath(configuration()->parametersFilePath()));
}

std::optional<QMRCustomization::Parameters> QMRCustomization::configParametersFromPath(
    const std::string& path) const {
  qm::ErrorPtr error;
  const std::optional<std::string> text = qm::readTextFile(qm::hostPath(path), &error);
  if (!text) {
    QM_LOG_ERROR(log_, "Error reading parameters file: %{public}@", error);
    return std::nullopt;
  }
  Parameters parameters;
  for (const std::string& line : qm::componentsSeparatedByString(*text, "\n")) {
    std::vector<std::string> pieces = qm::componentsSeparatedByString(line, "=");
    if (pieces.size() == 2) parameters.insert_or_assign(std::move(pieces[0]), std::move(pieces[1]));
  }
  return parameters;
}

std::optional<std::string> QMRCustomization::parameter(std::string_view key) const {
  const std::optional<Parameters> parameters = configParameters();
  if (!parameters) return std::nullopt;
  const auto found = parameters->find(key);
  return found == parameters->end() ? std::nullopt : std::optional(found->second);
}

bool QMRCustomization::optionEnabled(std::string_view key, bool defaultValue) const {
  const std::optional<std::string> value = parameter(key);
  return value ? qm::equalsIgnoringCase(*value, "true") : defaultValue;
}

bool QMRCustomization::option(std::string_view key, std::string_view value) const {
  const std::optional<std::string> found = parameter(key);
  return found && qm::equalsIgnoringCase(*found, value);
}

std::optional<std::string> QMRCustomization::trimmedStringFromFile(const std::string& path) const {
  qm::ErrorPtr error;
  const std::optional<std::string> text = qm::readTextFile(qm::hostPath(path), &error);
  if (text) return qm::trimWhitespaceAndNewlines(*text);
  QM_LOG_ERROR(log_, "Error reading data from file (%@) : %{public}@", path, error);
  return std::nullopt;
}

// --- Feature switches ---

bool QMRCustomization::useBasalt() const {
  return optionEnabled("BASALT");
}
bool QMRCustomization::hasWispScanningService() const {
  return optionEnabled("WISP_SCANNER");
}
bool QMRCustomization::hasWispSensor() const {
  return optionEnabled("WISP_SENSOR");
}
bool QMRCustomization::hasWispResponseEngine() const {
  return optionEnabled("WISP_RESPONSE_ENGINE");
}
bool QMRCustomization::palisadeIncludedInCustomization() const {
  return optionEnabled("PALISADE");
}
bool QMRCustomization::palisadeEnabledByDefault() const {
  return optionEnabled("PALISADE_ENABLED_BY_DEFAULT");
}
bool QMRCustomization::palisadeSystemRulesAvailable() const {
  return optionEnabled("PALISADE_SYSTEM_RULES");
}
bool QMRCustomization::palisadeSystemRulesVisible() const {
  return optionEnabled("PALISADE_SYSTEM_RULES_VISIBLE");
}
bool QMRCustomization::bankingProtectionEnabled() const {
  return optionEnabled("BANKING_NOTIFICATION");
}
bool QMRCustomization::parentalControlContentBlockerEnabled() const {
  return optionEnabled("PARENTAL_CONTENT_BLOCKER");
}
bool QMRCustomization::familyRulesEnabled() const {
  return optionEnabled("FAMILY_RULES");
}
bool QMRCustomization::familyRulesPromptEnabled() const {
  return optionEnabled("FAMILY_RULES_PROMPT", true);
}
bool QMRCustomization::installCodeHelpEnabled() const {
  return optionEnabled("INSTALL_CODE_HELP");
}
bool QMRCustomization::cbpLogoEnabled() const {
  return optionEnabled("SHOW_CBP_LOGO");
}
bool QMRCustomization::sharedEPPExtensionsEnabled() const {
  return optionEnabled("SHARED_EPP_EXTENSIONS");
}
bool QMRCustomization::hasScheduler() const {
  return optionEnabled("SCHEDULER");
}
bool QMRCustomization::browsingProtectionUsesCloudScan() const {
  return optionEnabled("BROWSINGPROTECTION_CLOUDSCAN");
}
bool QMRCustomization::hasGUI() const {
  return optionEnabled("GUI", !isMDROperatorId());
}

std::optional<std::string> QMRCustomization::attributionIDFile() const {
  if (!optionEnabled("INSTALLER_ATTRIBUTION_ID")) return std::nullopt;
  return QMRNamespace::namespacedWithPath(kAttributionIDFile);
}

// --- Product identity ---

std::string QMRCustomization::operatorId() const {
  qm::ErrorPtr error;
  const std::optional<std::string> text = qm::readTextFile(namespacedHostPath(kOperatorIdFile), &error);
  if (text) return qm::trimWhitespaceAndNewlines(*text);
  QM_LOG_ERROR(log_, "Unknown operator id. Will return empty string. Error: %{public}@", error);
  return {};
}

bool QMRCustomization::isAlpha() const {
  return option("MATURITY", "alpha") || isOneOf(operatorId(), {"478444", "777", "555", "778", "667"});
}

bool QMRCustomization::isBeta() const {
  return option("MATURITY", "beta") || isOneOf(operatorId(), {"668", "699", "666666", "666667", "6992000"});
}

bool QMRCustomization::hasForcedTelemetryConsent() const {
  // One operator is an exception, deliberately.
  return (isAlpha() || isBeta()) && operatorId() != "777";
}

bool QMRCustomization::isMDROperatorId() const {
  return qm::integerValue(operatorId()) == kMDROperator;
}

bool QMRCustomization::isProduct(std::string_view name) const {
  return parameter("PRODUCT") == name;
}
bool QMRCustomization::isMDR() const {
  return isProduct("mdr");
}
bool QMRCustomization::isOrchard() const {
  return isProduct("orchard");
}
bool QMRCustomization::isFernguard() const {
  return isProduct("fernguard");
}

std::string QMRCustomization::productFamilyName() const {
  if (isMDR()) return "mdr";
  if (isOrchard()) return "orc";
  return isFernguard() ? "fg" : "unknown";
}

bool QMRCustomization::isAppLevelFirewallAvailable() const {
  return isOrchard() || isFernguard();
}
bool QMRCustomization::isSystemExtensionAvailable() const {
  return isOrchard() || isFernguard();
}

std::string QMRCustomization::telemetrySource() const {
  return trimmedStringFromFile(QMRNamespace::namespacedWithPath(kTelemetrySourceFile))
      .value_or(kDefaultTelemetrySource);
}

std::string QMRCustomization::customizationRegion() const {
  return parameter("CUSTOMIZATION_REGION").value_or(std::string());
}

std::string QMRCustomization::porterEnvironment() const {
  if (isAlpha()) return "ci";
  return isBeta() ? "stg" : "prod";
}

std::string QMRCustomization::porterRegion() const {
  return porterRegionForCustomizationRegion(customizationRegion()).value_or("eu-west-1");
}

std::optional<std::string> QMRCustomization::porterRegionForCustomizationRegion(std::string_view region) {
  static const Parameters regions{{"APAC", "ap-northeast-1"}, {"EU", "eu-west-1"}, {"NA", "us-east-1"}};
  const auto found = regions.find(region);
  return found == regions.end() ? std::nullopt : std::optional(found->second);
}

// --- Service addresses ---

bool QMRCustomization::isTidal2() const {
  return qm::fileExists(namespacedHostPath(kTidal2File).c_str());
}
std::optional<std::string> QMRCustomization::tidal2Server() const {
  return hostForURL(fullTidal2URL());
}
std::optional<qm::URL> QMRCustomization::fullTidal2URL() const {
  return urlForPath(kTidal2File);
}
std::optional<std::string> QMRCustomization::updateServer() const {
  return tidal2Server();
}
std::optional<qm::URL> QMRCustomization::sebeUpdateServiceURL() const {
  return urlForPath(kSebeUpdateServiceFile);
}
std::optional<std::string> QMRCustomization::serviceEnablerServer() const {
  return hostForURL(urlForPath(kServiceEnablerFile));
}
std::optional<std::string> QMRCustomization::hotfixControlURL() const {
  return parameter("HOTFIX_CONTROL_URL");
}
std::optional<std::string> QMRCustomization::pnsPollURL() const {
  return parameter("PNS_POLL_URL");
}
std::optional<std::string> QMRCustomization::pnsRegistrarURL() const {
  return parameter("PNS_REGISTRAR_URL");
}
std::optional<std::string> QMRCustomization::getPrivacyPolicyLink() const {
  return getLanguageDecoratedParameter("PRIVACY_POLICY_LINK");
}
std::optional<std::string> QMRCustomization::productName() const {
  return parameter("PRODUCT_NAME");
}

std::optional<qm::URL> QMRCustomization::urlForPath(const std::string& path) const {
  const std::optional<std::string> text = trimmedStringFromFile(QMRNamespace::namespacedWithPath(path));
  return text && !text->empty() ? qm::URL::create(*text) : std::nullopt;
}

std::optional<std::string> QMRCustomization::hostForURL(const std::optional<qm::URL>& url) {
  return url ? url->host() : std::nullopt;
}

std::optional<std::string> QMRCustomization::getLanguageDecoratedParameter(std::string_view key) const {
  const std::optional<std::string> value = parameter(key);
  if (!value) return std::nullopt;
  return replacingAll(replacingAll(*value, "%LANGUAGE%", currentIETFLanguage()), "%LANGUAGE_CODE%",
                      currentNLSLanguage());
}

// --- Browser extensions ---

std::optional<std::string> QMRCustomization::chromeExtensionId() const {
  return parameter("EPP_EXTENSION_CHROME_ID");
}

std::optional<std::string> QMRCustomization::firefoxExtensionId() const {
  return parameter("EPP_EXTENSION_FIREFOX_ID");
}

std::optional<std::string> QMRCustomization::firefoxAddonDownloadUrl() const {
  const std::optional<std::string> link = parameter("EPP_EXTENSION_FIREFOX_LINK");
  if (!link) return std::nullopt;
  return replacingAll(*link, "%LANGUAGE%", firstPart(currentIETFLanguage()));
}

std::optional<std::string> QMRCustomization::incompatibleChromeExtensionVersionThreshold() const {
  return parameter("EPP_EXTENSION_CHROME_INCOMPATIBLE_VERSION");
}

std::optional<std::string> QMRCustomization::incompatibleFirefoxExtensionVersionThreshold() const {
  return parameter("EPP_EXTENSION_FIREFOX_INCOMPATIBLE_VERSION");
}

bool QMRCustomization::browsingProtectionIncluded() const {
  qm::FileStatus status;
  return qm::statPath(namespacedHostPath(kBrowsingProtectionFolder).c_str(), status) && status.isDirectory;
}

std::optional<qm::Dictionary> QMRCustomization::browsingProtectionCustomization() const {
  const std::string path =
      QMRNamespace::namespacedWithPath(configuration()->browsingProtectionCustomizationFilePath());
  qm::ErrorPtr error;
  const std::optional<std::string> text = qm::readTextFile(qm::hostPath(path), &error);
  std::optional<qm::Dictionary> customization;
  if (text) customization = qm::parseJSONObject(*text, &error);
  if (!customization) QM_LOG_ERROR(log_, "Error reading data from file (%@) : %{public}@", path, error);
  return customization;
}

// --- Appearance ---

std::optional<QMRCustomization::Color> QMRCustomization::surfaceColor() const {
  return color("surfaceColor");
}
std::optional<QMRCustomization::Color> QMRCustomization::buttonColor() const {
  return color("buttonColor");
}
std::optional<std::string> QMRCustomization::surfaceColorHex() const {
  return colorHex("surfaceColor");
}
std::optional<std::string> QMRCustomization::buttonColorHex() const {
  return colorHex("buttonColor");
}
std::optional<QMRCustomization::Color> QMRCustomization::hoverColor() const {
  return color("hoverColor");
}
std::optional<QMRCustomization::Color> QMRCustomization::selectedTextColor() const {
  return color("selectedTextColor");
}
std::optional<QMRCustomization::Color> QMRCustomization::titlebarTextColor() const {
  return color("titlebarTextColor");
}
std::optional<QMRCustomization::Color> QMRCustomization::backgroundColor() const {
  return color("backgroundColor");
}
std::optional<QMRCustomization::Color> QMRCustomization::browsingPageSecondaryColor() const {
  return color("browsingPageSecondaryColor");
}

bool QMRCustomization::isTemplatedStatusbarIcon() const {
  const qm::Dictionary customization = browsingProtectionCustomization().value_or(qm::Dictionary());
  const bool* const isTemplated = qm::find<bool>(customization, "isTemplatedStatusbarIcon");
  return isTemplated != nullptr && *isTemplated;
}

std::optional<QMRCustomization::Color> QMRCustomization::color(std::string_view key) const {
  const std::optional<std::string> hex = colorHex(key);
  return hex ? colorOfHex(*hex) : std::nullopt;
}

std::optional<std::string> QMRCustomization::colorHex(std::string_view key) const {
  const qm::Dictionary customization = browsingProtectionCustomization().value_or(qm::Dictionary());
  const std::string* const text = qm::find<std::string>(customization, key);
  return text == nullptr ? std::nullopt : hexOfCuifColor(customization, *text);
}

std::optional<QMRCustomization::Color> QMRCustomization::colorForCuifColor(const std::string& color) const {
  const qm::Dictionary customization = browsingProtectionCustomization().value_or(qm::Dictionary());
  const std::optional<std::string> hex = hexOfCuifColor(customization, color);
  return hex ? colorOfHex(*hex) : std::nullopt;
}

std::optional<std::string> QMRCustomization::cuifStyleConstantForName(std::string_view name) const {
  return styleConstant(browsingProtectionCustomization().value_or(qm::Dictionary()), name);
}

std::string QMRCustomization::fullPathForImage(std::string_view name) {
  return qm::stringByAppendingPathComponent(QMRNamespace::namespacedWithPath(kImageFolder), name);
}

// --- Languages ---

std::vector<std::string> QMRCustomization::preferredLanguages() const {
  return languagesProvider()->preferredLanguages();
}

std::vector<std::string> QMRCustomization::availableCustomizationLanguages() const {
  return languagesProvider()->availableCustomizationLanguages();
}

std::optional<std::string> QMRCustomization::defaultCustomizationLanguage() const {
  return languagesProvider()->defaultCustomizationLanguage();
}

std::string QMRCustomization::currentIETFLanguage() const {
  const std::vector<std::string> preferred = preferredLanguages();
  return preferred.empty() ? "en" : preferred.front();
}

std::string QMRCustomization::currentNLSLanguage() const {
  const std::string tag = currentIETFLanguage();
  std::optional<std::string> code = mapIETFNLS(tag);
  if (!code) code = mapIETFNLS(firstPart(tag));
  std::string result = code.value_or("ENG");
  cachedNLSLanguage_.set(result);
  return result;
}

std::optional<std::string> QMRCustomization::mapIETFNLS(std::string_view languageTag) {
  static const Parameters codes{
      {"bg", "BGR"}, {"cs", "CSY"},    {"da", "DAN"},     {"de", "DEU"},      {"el", "ELL"},
      {"en", "ENG"}, {"es", "ESN"},    {"es-419", "ESM"}, {"et", "ETI"},      {"fi", "FIN"},
      {"fr", "FRA"}, {"fr-CA", "FRC"}, {"hr", "HRV"},     {"hu", "HUN"},      {"it", "ITA"},
      {"ja", "JPN"}, {"ja-JP", "JPN"}, {"ko", "KOR"},     {"lt", "LTH"},      {"nb", "NOR"},
      {"nl", "NLD"}, {"pl", "PLK"},    {"pt", "PTB"},     {"pt-BR", "PTB"},   {"pt-PT", "PTG"},
      {"ro", "ROM"}, {"ru", "RUS"},    {"sl", "SLV"},     {"sr", "SRP"},      {"sv", "SVE"},
      {"tr", "TRK"}, {"vi", "VIT"},    {"zh-HK", "ZHH"},  {"zh-Hans", "CHS"}, {"zh-Hant", "CHT"},
  };
  const auto found = codes.find(languageTag);
  return found == codes.end() ? std::nullopt : std::optional(found->second);
}
