// The names of the product's services, before the namespace.
#pragma once

inline constexpr const char* QMRServiceIdentifierAVD = "com.quillmarsh.qmavd";
inline constexpr const char* QMRServiceIdentifierSensor = "com.quillmarsh.wisp.qmsensord";
inline constexpr const char* QMRServiceIdentifierResponse = "com.quillmarsh.wisp.qmresponsed";
inline constexpr const char* QMRServiceIdentifierWpcore = "com.quillmarsh.wisp.qmwpcored";
inline constexpr const char* QMRServiceIdentifierPalisade = "com.quillmarsh.qmpalisaded";
inline constexpr const char* QMRServiceIdentifierESProvider = "com.quillmarsh.qmesproviderd";
inline constexpr const char* QMRServiceIdentifierReputation = "com.quillmarsh.qmreputationd";
