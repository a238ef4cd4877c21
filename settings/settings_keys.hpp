// The keys of the settings daemon's dictionaries.
#pragma once

// System settings.
inline constexpr const char* kWispConfigState = "wisp-config-state";  // integer; 2: configured and usable
inline constexpr const char* kWispErrorState = "wisp-error-state";
inline constexpr const char* kWispErrorReason = "wisp-error-reason";
inline constexpr const char* kSystemSettingsKeyOASDisabled = "oas-disabled";
inline constexpr const char* kSystemSettingsKeyNimbusEnabled = "nimbus-enabled-global";
inline constexpr const char* kSystemSettingsKeyPalisadeEnabled = "palisade-enabled";
inline constexpr const char* kSystemSettingsKeyPalisadeSystemRuleSet = "palisade-system-rule-set";
inline constexpr const char* kSystemSettingsKeyPalisadeLearningMode = "palisade-learning-mode";
inline constexpr const char* kSystemSettingsKeyPalisadeAdvancedMode = "palisade-advanced-mode";
inline constexpr const char* kSystemSettingsKeyPalisadeNonAdminPolicySaveAllowed =
    "palisade-non-admin-policy-save-allowed";
inline constexpr const char* kSystemSettingsKeySystemFirewallInitialState = "system-firewall-initial-state";
inline constexpr const char* kSystemSettingsKeySageDeeperAnalysisAllowed = "sage-deeper-analysis-allowed";
inline constexpr const char* kSystemSettingsKeyBrowsingProtectionSuspiciousBlocked =
    "browsing-protection-suspicious-blocked";
inline constexpr const char* kSystemSettingsKeyBrowsingProtectionProhibitedBlocked =
    "browsing-protection-prohibited-blocked";

// User settings.
inline constexpr const char* kUserSettingsKeyNimbusEnabled = "nimbus-enabled";
inline constexpr const char* kUserSettingsKeyNimbusProfileType = "nimbus-profile-type";
inline constexpr const char* kUserSettingsKeyBrowsingProtectionDisabled = "browsing-protection-disabled";
inline constexpr const char* kUserSettingsKeyBrowsingProtectionRecommended =
    "browsing-protection-recommended";
inline constexpr const char* kUserSettingsKeyContentBlockerDisabled = "content-blocker-disabled";
inline constexpr const char* kUserSettingsKeySafeSearchEnabled = "safe-search-enabled";
inline constexpr const char* kUserSettingsKeyBlockedCategories = "blocked-categories";
inline constexpr const char* kUserSettingsKeyBankingProtectionDisabled = "banking-protection-disabled";
inline constexpr const char* kUserSettingsKeyNotificationsAllowed = "notifications-allowed";
inline constexpr const char* kUserSettingsBrowsingProtectionIsNewCustomer =
    "browsing-protection-is-new-customer";
inline constexpr const char* kUserSettingsKeySafariExtensionState = "SafariExtensionState";
inline constexpr const char* kUserSettingsBrowsingProtectionBrowsersToMigrate =
    "browsing-protection-browsers-to-migrate";
inline constexpr const char* kUserSettingsKeySafariAllWebsiteAccessGranted =
    "safari-all-website-access-granted";
inline constexpr const char* kUserSettingsKeyDailyLimits = "daily-limits";
inline constexpr const char* kUserSettingsKeyDayOfTheWeek = "day-of-the-week";
inline constexpr const char* kUserSettingsKeyTotalTime = "total-time";
inline constexpr const char* kUserSettingsKeyRemainingTime = "remaining-time";
inline constexpr const char* kUserSettingsKeyDailyUsageOverride = "daily-usage-override";
inline constexpr const char* kUserSettingsKeyTimeTillScreenLock = "time-till-screen-lock";
inline constexpr const char* kUserSettingsKeyDismissedTasks = "dismissed-ucf-tasks";  // array of task names

// The state of the machine and its browsers.
inline constexpr const char* kTCCGranted = "tcc-access-granted";
inline constexpr const char* kSystemExtensionActivationStatus = "system-extension-activation-status";
inline constexpr const char* kNetworkExtensionContentFilterServiceStatus =
    "network-extension-content-filter-service-status";
inline constexpr const char* kBrowserFirstLaunchSettingsKey = "browser-first-launch";
inline constexpr const char* kBrowserLastActiveSettingsKey = "browser-last-active";
inline constexpr const char* kBrowserStatusSettingsKey = "browser-status";
inline constexpr const char* kDefaultBrowserSettingsKey = "default-browser";
inline constexpr const char* kBrowserExtensionVersionsSettingsKey = "browser-extension-versions";
inline constexpr const char* kWispErrorSettingsKey = "OverallStatusWisp-error";
inline constexpr const char* kRtsActivityIndicatorSettingsKey = "rts-activity-indicator";
inline constexpr const char* kBrowserExtensionSettingsKey = "browser-extension";
inline constexpr const char* kStatusConnectionsPerURLSettingsKey = "status-connections-per-url";
