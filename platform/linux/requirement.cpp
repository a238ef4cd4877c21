#include "platform/linux/requirement.hpp"

#include <unicode/unistr.h>

#include <algorithm>
#include <limits>
#include <utility>

#include "platform/linux/requirement_node.hpp"

namespace qm {
namespace {

using Operation = RequirementMatch::Operation;

icu::UnicodeString unicode(std::string_view text) {
  const std::size_t length = std::min<std::size_t>(text.size(), std::numeric_limits<std::int32_t>::max());
  return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<std::int32_t>(length)));
}

bool isDigit(char16_t unit) {
  return unit >= u'0' && unit <= u'9';
}

// The number that begins at the position; goes on behind it. Wraps around where it is too large.
std::uint64_t takeNumber(const icu::UnicodeString& text, std::int32_t& position) {
  std::uint64_t number = 0;
  for (; position < text.length() && isDigit(text[position]); ++position)
    number = number * 10 + static_cast<std::uint64_t>(text[position] - u'0');
  return number;
}

template <class T>
int order(const T& a, const T& b) {
  return a < b ? -1 : a > b ? 1 : 0;
}

bool matchesText(const RequirementMatch& match, const std::string& text) {
  const std::string& operand = match.operand;
  switch (match.operation) {
    case Operation::equal:
      return text == operand;
    case Operation::beginsWith:
      return text.starts_with(operand);
    case Operation::endsWith:
      return text.ends_with(operand);
    case Operation::contains:
      return text.find(operand) != std::string::npos;
    case Operation::less:
      return compareNumerically(text, operand) < 0;
    case Operation::greater:
      return compareNumerically(text, operand) > 0;
    case Operation::lessOrEqual:
      return compareNumerically(text, operand) <= 0;
    case Operation::greaterOrEqual:
      return compareNumerically(text, operand) >= 0;
    case Operation::exists:
      return true;
    case Operation::absent:
      return false;
  }
  return false;
}

// A null pointer when there is no value. Of an array any element may match; what is no text satisfies no
// comparison.
bool matches(const RequirementMatch& match, const Value* value) {
  if (value == nullptr || value->isNull()) return match.operation == Operation::absent;
  if (const Array* elements = value->as<Array>()) {
    const bool any = std::any_of(elements->begin(), elements->end(),
                                 [&](const Value& element) { return matches(match, &element); });
    if (any) return true;
  }
  if (match.operation == Operation::absent) return false;
  if (match.operation == Operation::exists) return *value != Value(false);
  const std::string* text = value->as<std::string>();
  return text != nullptr && matchesText(match, *text);
}

const CertificateFacts* certificateAt(const CodeFacts& code, CertificateSlot slot) {
  const auto count = static_cast<CertificateSlot>(code.chain.size());
  const CertificateSlot index = slot < 0 ? count + slot : slot;
  return index < 0 || index >= count ? nullptr : &code.chain[static_cast<std::size_t>(index)];
}

const std::vector<std::string>* subjectPart(const CertificateFacts& certificate, std::string_view part) {
  const auto found = certificate.subject.find(part);
  return found == certificate.subject.end() || found->second.empty() ? nullptr : &found->second;
}

bool isSubjectPart(std::string_view part) {
  constexpr std::string_view kParts[] = {"CN", "C", "D", "L", "O", "OU", "ST", "STREET", "UID"};
  return std::find(std::begin(kParts), std::end(kParts), part) != std::end(kParts);
}

bool evaluate(const RequirementNode& node, const CodeFacts& code);

struct Evaluation {
  const CodeFacts& code;

  bool operator()(const ConstantTerm& term) const { return term.value; }
  bool operator()(const AnchoredTerm&) const { return code.anchored && !code.chain.empty(); }
  bool operator()(const IdentifierTerm& term) const {
    const std::string* identifier = find<std::string>(code.info, "CFBundleIdentifier");
    return identifier != nullptr && *identifier == term.identifier;
  }
  bool operator()(const InfoTerm& term) const { return matches(term.match, find(code.info, term.key)); }
  bool operator()(const CertificateTrustedTerm& term) const {
    const CertificateFacts* certificate = certificateAt(code, term.slot);
    return code.anchored && certificate != nullptr && certificate == &code.chain.back();
  }
  bool operator()(const CertificateHashTerm& term) const {
    const CertificateFacts* certificate = certificateAt(code, term.slot);
    return certificate != nullptr && certificate->hash == term.hash;
  }
  bool operator()(const CertificateSubjectTerm& term) const {
    const CertificateFacts* certificate = certificateAt(code, term.slot);
    if (certificate == nullptr || !isSubjectPart(term.part)) return false;
    const std::vector<std::string>* values = subjectPart(*certificate, term.part);
    if (values == nullptr) return term.match.operation == Operation::absent;
    return std::any_of(values->begin(), values->end(),
                       [&](const std::string& value) { return matchesText(term.match, value); });
  }
  bool operator()(const NotTerm& term) const { return !evaluate(*term.operand, code); }
  // Every operand is evaluated, as on the home platform; none has a side effect.
  bool operator()(const AllTerm& term) const {
    bool all = true;
    for (const auto& operand : term.operands) all = evaluate(*operand, code) && all;
    return all;
  }
  bool operator()(const AnyTerm& term) const {
    bool any = false;
    for (const auto& operand : term.operands) any = evaluate(*operand, code) || any;
    return any;
  }
};

bool evaluate(const RequirementNode& node, const CodeFacts& code) {
  return std::visit(Evaluation{code}, node.term);
}

}  // namespace

int compareNumerically(std::string_view a, std::string_view b) {
  const icu::UnicodeString left = unicode(a);
  const icu::UnicodeString right = unicode(b);
  std::int32_t i = 0;
  std::int32_t j = 0;
  while (i < left.length() && j < right.length()) {
    const bool numbers = isDigit(left[i]) && isDigit(right[j]);
    const int result = numbers ? order(takeNumber(left, i), takeNumber(right, j)) : order(left[i], right[j]);
    if (result != 0) return result;
    if (!numbers) {
      ++i;
      ++j;
    }
  }
  return order(left.length() - i, right.length() - j);
}

SecRequirement::SecRequirement(std::unique_ptr<const RequirementNode> root) : root_(std::move(root)) {}
SecRequirement::~SecRequirement() = default;

bool SecRequirement::isSatisfiedBy(const CodeFacts& code) const {
  return evaluate(*root_, code);
}

}  // namespace qm
