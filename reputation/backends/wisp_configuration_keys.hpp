// The keys and values of the Wisp configuration where it is kept as a dictionary.
#pragma once

// Of the service discovery (porter).
inline constexpr const char* kQMRWispPorterKeyNamespace = "namespace";
inline constexpr const char* kQMRWispPorterKeyEnvironment = "environment";
inline constexpr const char* kQMRWispPorterKeyUrl = "url";
inline constexpr const char* kQMRWispPorterKeyRegion = "region";
inline constexpr const char* kQMRWispPorterKeyUuid = "uuid";
inline constexpr const char* kQMRWispPorterKeyPassword = "password";  // the name of the key, not a password

inline constexpr const char* kQMRWispPorterEnvironmentProduction = "prod";
inline constexpr const char* kQMRWispPorterEnvironmentStaging = "stg";
inline constexpr const char* kQMRWispPorterEnvironmentCI = "ci";

// Of the product.
inline constexpr const char* kQMRWispProductInfoKeyMode = "mode";
inline constexpr const char* kQMRWispProductInfoKeyVersion = "version";
inline constexpr const char* kQMRWispProductInfoKeyReleaseStage = "release_stage";
inline constexpr const char* kQMRWispProductInfoKeyReleaseGroup = "release_group";

inline constexpr const char* kQMRWispProductModeOrchard = "edr";
inline constexpr const char* kQMRWispProductModeMDR = "mdr";

inline constexpr const char* kQMRWispProductReleaseStageCI = "ci";
inline constexpr const char* kQMRWispProductReleaseStageBeta = "beta";
inline constexpr const char* kQMRWispProductReleaseStageProd = "production";
