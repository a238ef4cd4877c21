// Makes the throw-away authority that a build, a trial or a test signs its programs with; used by qmcodesign.
#pragma once

#include <string>

#include "tools/failure.hpp"

namespace qm::tools {

// The signing team of the product.
inline constexpr const char* kSigningTeam = "K7Q2M9X4T1";

inline constexpr const char* kDevelopmentRoot = "development-root.pem";
inline constexpr const char* kDevelopmentCertificate = "development-signing.pem";
inline constexpr const char* kDevelopmentKey = "development-signing.key";

struct AuthorityOptions {
  std::string team = kSigningTeam;  // the OU of the signing certificate
  int days = 30;                    // how long both certificates are valid
};

// Makes a root and a signing certificate of its own, EC P-256, and writes the three files above into the
// folder, which is made when there is none; the key with mode 0600. The root's key is never written: nothing
// else can be issued. Fails, and changes nothing, when one of the files is there already.
[[nodiscard]] Failure makeDevelopmentAuthority(const std::string& folder, const AuthorityOptions& options);

}  // namespace qm::tools
