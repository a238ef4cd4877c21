// Which product variant is installed, which features it carries, and how it looks and in which languages:
// from the parameters file and the one-line files that the installer wrote beside it, and from the product
// and language files of the user interface. The daemon asks it for each connection which reputation backend
// to use.
//
// Every question reads its file anew, so a change takes effect at once; any thread may ask. A file that
// cannot be read is logged and counts as absent.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/log.hpp"
#include "foundation/property.hpp"
#include "foundation/value.hpp"
#include "platform/url.hpp"
#include "settings/QMRCustomizationConfiguration.hpp"
#include "settings/QMRCustomizationLanguagesProvider.hpp"

class QMRCustomization {
 public:
  using Parameters = std::map<std::string, std::string, std::less<>>;

  // In sRGB, each from 0 to 1.
  struct Color {
    double red = 0;
    double green = 0;
    double blue = 0;
    friend bool operator==(const Color&, const Color&) = default;
  };

  // Null stands for the default.
  explicit QMRCustomization(std::shared_ptr<QMRCustomizationConfiguration> configuration = nullptr,
                            std::shared_ptr<QMRCustomizationLanguagesProvider> languagesProvider = nullptr);
  QMRCustomization(const QMRCustomization&) = delete;
  QMRCustomization& operator=(const QMRCustomization&) = delete;

  std::shared_ptr<QMRCustomizationConfiguration> configuration() const { return configuration_.get(); }
  std::shared_ptr<QMRCustomizationLanguagesProvider> languagesProvider() const {
    return languagesProvider_.get();
  }

  // The parameters file: UTF-8 lines KEY=VALUE, both taken as they stand. A line with no "=" or more than one
  // is ignored; of two lines with the same key the later one counts. Nothing when the file cannot be read.
  std::optional<Parameters> configParameters() const;
  // The path is a product path that has passed through the namespace.
  std::optional<Parameters> configParametersFromPath(const std::string& path) const;
  // The value under the key.
  std::optional<std::string> parameter(std::string_view key) const;
  // A value that is there enables the option when it is "true" in any case; an absent key gives the default.
  bool optionEnabled(std::string_view key, bool defaultValue = false) const;
  // The key is there and its value equals the text without regard to case.
  bool option(std::string_view key, std::string_view value) const;
  // The file's text without white space around it; nothing when it cannot be read. A product path that has
  // passed through the namespace.
  std::optional<std::string> trimmedStringFromFile(const std::string& path) const;

  // Feature switches.
  bool useBasalt() const;
  bool hasWispScanningService() const;
  bool hasWispSensor() const;
  bool hasWispResponseEngine() const;
  bool palisadeIncludedInCustomization() const;
  bool palisadeEnabledByDefault() const;
  bool palisadeSystemRulesAvailable() const;
  bool palisadeSystemRulesVisible() const;
  bool bankingProtectionEnabled() const;
  bool parentalControlContentBlockerEnabled() const;
  bool familyRulesEnabled() const;
  bool familyRulesPromptEnabled() const;  // on by default
  bool installCodeHelpEnabled() const;
  bool cbpLogoEnabled() const;
  bool sharedEPPExtensionsEnabled() const;
  bool hasScheduler() const;
  bool browsingProtectionUsesCloudScan() const;
  bool hasGUI() const;  // on by default, except for the operator of the managed service
  // The namespaced product path of the installer's attribution identifier; nothing when it keeps none.
  std::optional<std::string> attributionIDFile() const;

  // Product identity. The operator id is empty when it is not known.
  std::string operatorId() const;
  bool isAlpha() const;
  bool isBeta() const;
  bool hasForcedTelemetryConsent() const;
  bool isMDROperatorId() const;
  bool isMDR() const;
  bool isOrchard() const;
  bool isFernguard() const;
  std::string productFamilyName() const;  // "mdr", "orc", "fg" or "unknown"
  bool isAppLevelFirewallAvailable() const;
  bool isSystemExtensionAvailable() const;
  std::string telemetrySource() const;
  std::string customizationRegion() const;
  std::string porterEnvironment() const;  // "ci", "stg" or "prod"
  std::string porterRegion() const;
  // Nothing for a region that is not in the table.
  static std::optional<std::string> porterRegionForCustomizationRegion(std::string_view region);

  // Service addresses; nothing when the file or parameter is missing or holds no URL.
  bool isTidal2() const;
  std::optional<std::string> tidal2Server() const;
  std::optional<qm::URL> fullTidal2URL() const;
  std::optional<std::string> updateServer() const;
  std::optional<qm::URL> sebeUpdateServiceURL() const;
  std::optional<std::string> serviceEnablerServer() const;
  std::optional<std::string> hotfixControlURL() const;
  std::optional<std::string> pnsPollURL() const;
  std::optional<std::string> pnsRegistrarURL() const;
  std::optional<std::string> getPrivacyPolicyLink() const;  // for the current language
  std::optional<std::string> productName() const;
  // The URL in a one-line file. The path is a product path before the namespace.
  std::optional<qm::URL> urlForPath(const std::string& path) const;
  static std::optional<std::string> hostForURL(const std::optional<qm::URL>& url);
  // The parameter with "%LANGUAGE%" replaced by the current language tag and "%LANGUAGE_CODE%" by the current
  // three-letter code.
  std::optional<std::string> getLanguageDecoratedParameter(std::string_view key) const;

  // Browser extensions.
  std::optional<std::string> chromeExtensionId() const;
  std::optional<std::string> firefoxExtensionId() const;
  // With "%LANGUAGE%" replaced by the current language without its region.
  std::optional<std::string> firefoxAddonDownloadUrl() const;
  std::optional<std::string> incompatibleChromeExtensionVersionThreshold() const;
  std::optional<std::string> incompatibleFirefoxExtensionVersionThreshold() const;
  bool browsingProtectionIncluded() const;
  // The object in the configuration's JSON file; nothing when it holds none.
  std::optional<qm::Dictionary> browsingProtectionCustomization() const;

  // Appearance, for programs with a user interface, from that object. A colour is the text "#RRGGBB" under
  // the function's name, or the name of a style constant that is such a text; nothing when it is not there or
  // neither.
  std::optional<Color> surfaceColor() const;
  std::optional<Color> buttonColor() const;
  std::optional<std::string> surfaceColorHex() const;  // "#RRGGBB"
  std::optional<std::string> buttonColorHex() const;
  std::optional<Color> hoverColor() const;
  std::optional<Color> selectedTextColor() const;
  std::optional<Color> titlebarTextColor() const;
  std::optional<Color> backgroundColor() const;
  std::optional<Color> browsingPageSecondaryColor() const;
  // The icon of the status bar takes the colours of the bar: the boolean of that name, off by default.
  bool isTemplatedStatusbarIcon() const;
  // Of a colour as it stands in the object.
  std::optional<Color> colorForCuifColor(const std::string& color) const;
  // The text under the name in the object "styleConstants".
  std::optional<std::string> cuifStyleConstantForName(std::string_view name) const;
  // The namespaced product path of the image file, which need not be there.
  static std::string fullPathForImage(std::string_view name);

  // Languages. The system's preferred ones, the most wanted first.
  std::vector<std::string> preferredLanguages() const;
  // The product's own, and which of them it speaks when no other is chosen: those of the languages provider.
  std::vector<std::string> availableCustomizationLanguages() const;
  std::optional<std::string> defaultCustomizationLanguage() const;
  // The current one is the system's first preferred language, "en" when it has none.
  std::string currentIETFLanguage() const;
  // Its three-letter code, that of its first part when the whole tag has none, else "ENG"; remembered.
  std::string currentNLSLanguage() const;
  // Nothing before currentNLSLanguage was first asked for.
  std::optional<std::string> cachedNLSLanguage() const { return cachedNLSLanguage_.get(); }
  // The product's three-letter code of exactly this language tag; nothing for one that is not in the table.
  static std::optional<std::string> mapIETFNLS(std::string_view languageTag);

 private:
  bool isProduct(std::string_view name) const;
  std::optional<Color> color(std::string_view key) const;
  std::optional<std::string> colorHex(std::string_view key) const;

  qm::Log& log_;
  qm::Property<std::shared_ptr<QMRCustomizationConfiguration>> configuration_;
  qm::Property<std::shared_ptr<QMRCustomizationLanguagesProvider>> languagesProvider_;
  mutable qm::Property<std::optional<std::string>> cachedNLSLanguage_;
};
