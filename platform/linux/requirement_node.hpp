// The parsed form of a requirement; shared by its parser and its evaluation only.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "platform/linux/requirement.hpp"

namespace qm {

struct RequirementMatch {
  enum class Operation : std::uint8_t {
    exists,
    absent,
    equal,
    beginsWith,
    endsWith,
    contains,
    less,
    greater,
    lessOrEqual,
    greaterOrEqual
  };
  Operation operation = Operation::exists;
  std::string operand;
};

// Counted from the leaf (0, 1, ...) or, when negative, from the root (-1, -2, ...).
using CertificateSlot = std::int64_t;
inline constexpr CertificateSlot kLeafSlot = 0;
inline constexpr CertificateSlot kAnchorSlot = -1;

struct ConstantTerm {
  bool value = false;
};
struct AnchoredTerm {};  // the chain ends at an installed anchor
struct IdentifierTerm {
  std::string identifier;
};
struct InfoTerm {
  std::string key;
  RequirementMatch match;
};
struct CertificateTrustedTerm {
  CertificateSlot slot = kLeafSlot;
};
struct CertificateHashTerm {
  CertificateSlot slot = kLeafSlot;
  CertificateHash hash{};
};
struct CertificateSubjectTerm {
  CertificateSlot slot = kLeafSlot;
  std::string part;  // "OU"
  RequirementMatch match;
};
struct NotTerm {
  std::unique_ptr<const RequirementNode> operand;
};
struct AllTerm {
  std::vector<std::unique_ptr<const RequirementNode>> operands;
};
struct AnyTerm {
  std::vector<std::unique_ptr<const RequirementNode>> operands;
};

struct RequirementNode {
  std::variant<ConstantTerm, AnchoredTerm, IdentifierTerm, InfoTerm, CertificateTrustedTerm,
               CertificateHashTerm, CertificateSubjectTerm, NotTerm, AllTerm, AnyTerm>
      term;
};

}  // namespace qm
