// Code requirements: the text form, parsed once, and its evaluation over what is known of a signed program.
//
//   requirement  expression [";"]
//   expression   term { "or" term }
//   term         primary { "and" primary }
//   primary      "!" primary | "(" expression ")" | "always" | "true" | "never" | "false"
//                | "identifier" ["=" | "=="] string
//                | "info" "[" string "]" match
//                | "anchor" ( "apple" "generic" | "generic" "apple" | certificate )
//                | ( "certificate" | "cert" ) slot certificate
//   slot         "leaf" | "root" | "anchor" | ["-"] number
//   certificate  "trusted" | ["=" | "=="] H"40 hexadecimal digits" | "[" key "]" match
//   match        nothing | "exists" | "absent" | ( "=" | "==" ) ["*"] string ["*"] | "~" string
//                | ( "<" | ">" | "<=" | ">=" ) string
//
// A string is quoted (\" is the only escape), or a letter with letters and digits in parts joined by points,
// or a hexadecimal constant 0x...; comments are #..., //... and /*...*/. Key is "subject." with CN, C, D, L,
// O, OU, ST, STREET or UID; another part of the subject is never true. The language's terms that mean nothing
// on this platform (cdhash, entitlement, platform, notarized, legacy, anchor apple, certificate files, keys
// outside the subject) are understood and refused as unsupported: not even their negation can pass.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/value.hpp"
#include "platform/code_signing.hpp"

namespace qm {

inline constexpr std::size_t kMaximumRequirementLength = 64 * 1024;  // bytes
inline constexpr int kMaximumRequirementNesting = 100;               // parentheses and exclamation marks

// The SHA-1 of a whole certificate, the name it has in requirements.
using CertificateHash = std::array<std::uint8_t, 20>;

struct CertificateFacts {
  // The parts of the subject under their names in requirements ("OU"), in UTF-8, in the certificate's order.
  std::map<std::string, std::vector<std::string>, std::less<>> subject;
  CertificateHash hash{};
};

// What a requirement is evaluated over.
struct CodeFacts {
  std::vector<CertificateFacts> chain;  // the leaf first
  bool anchored = false;                // the last of the chain is an installed anchor
  Dictionary info;                      // the Info.plist; empty when there is none
};

struct RequirementNode;

class SecRequirement {
 public:
  // kSecCSReqInvalid for anything that is not of the language or beyond the limits, kSecCSReqUnsupported for
  // what is and cannot be evaluated here. `reason`, unless null, gets a sentence for people.
  static OSStatus parse(std::string_view text, SecRequirementPtr& requirement, std::string* reason = nullptr);

  explicit SecRequirement(std::unique_ptr<const RequirementNode> root);
  ~SecRequirement();

  bool isSatisfiedBy(const CodeFacts& code) const;

 private:
  std::unique_ptr<const RequirementNode> root_;
};

// Numeric order of two texts: stretches of ASCII digits compare as unsigned 64-bit numbers, everything else
// by UTF-16 unit, and a text is less than one it begins. -1, 0, 1.
int compareNumerically(std::string_view a, std::string_view b);

}  // namespace qm
