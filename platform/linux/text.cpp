#include "platform/text.hpp"

#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "foundation/strings.hpp"

namespace qm {
namespace {

// Bytes that are not UTF-8 become U+FFFD.
icu::UnicodeString fromUTF8(std::string_view text) {
  return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
}

std::string toUTF8(const icu::UnicodeString& text) {
  std::string result;
  text.toUTF8String(result);
  return result;
}

bool isASCII(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

icu::UnicodeString decomposed(const icu::UnicodeString& text) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* const normalizer = icu::Normalizer2::getNFDInstance(status);
  // The data is compiled into the library.
  if (U_FAILURE(status)) std::abort();
  return normalizer->normalize(text, status);
}

// Folding can bring characters into an order that is not canonical, hence the second decomposition.
icu::UnicodeString foldedForComparison(std::string_view text) {
  return decomposed(decomposed(fromUTF8(text)).foldCase(U_FOLD_CASE_DEFAULT));
}

ErrorPtr makePatternError(std::string_view pattern) {
  constexpr std::int64_t kFormattingError = 2048;
  return makeError(kCocoaErrorDomain, kFormattingError,
                   {{kLocalizedDescriptionKey, "The value “" + std::string(pattern) + "” is invalid."},
                    {"NSInvalidValue", pattern}});
}

}  // namespace

std::string lowercaseString(std::string_view text) {
  if (isASCII(text)) return asciiLowercase(text);
  return toUTF8(fromUTF8(text).toLower(icu::Locale::getRoot()));
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (isASCII(a) && isASCII(b)) return a.size() == b.size() && asciiLowercase(a) == asciiLowercase(b);
  return foldedForComparison(a) == foldedForComparison(b);
}

int compareStrings(std::string_view a, std::string_view b) {
  const int order = isASCII(a) && isASCII(b)
                        ? a.compare(b)
                        : decomposed(fromUTF8(a)).compareCodePointOrder(decomposed(fromUTF8(b)));
  return order < 0 ? -1 : order > 0 ? 1 : 0;
}

// A compiled pattern is immutable; each call matches with a matcher of its own.
struct RegularExpression::Pattern {
  std::unique_ptr<icu::RegexPattern> compiled;
};

RegularExpression::RegularExpression(std::unique_ptr<Pattern> pattern) : pattern_(std::move(pattern)) {}
RegularExpression::~RegularExpression() = default;

namespace {

// ICU makes what all patterns share with the first one, synchronised in a way that ThreadSanitizer cannot
// see: made here, once and before any other.
void makeSharedTables() {
  [[maybe_unused]] static const bool areMade = [] {
    UErrorCode status = U_ZERO_ERROR;
    UParseError position{};
    const std::unique_ptr<icu::RegexPattern> first(icu::RegexPattern::compile("a", 0, position, status));
    if (first == nullptr) return false;
    const std::unique_ptr<icu::RegexMatcher> matcher(first->matcher(status));
    return matcher != nullptr;
  }();
}

}  // namespace

std::unique_ptr<RegularExpression> RegularExpression::create(std::string_view pattern, bool caseInsensitive,
                                                             ErrorPtr* error) {
  makeSharedTables();
  UErrorCode status = U_ZERO_ERROR;
  UParseError position{};
  const std::uint32_t flags = caseInsensitive ? std::uint32_t{UREGEX_CASE_INSENSITIVE} : 0U;
  std::unique_ptr<icu::RegexPattern> compiled(
      icu::RegexPattern::compile(fromUTF8(pattern), flags, position, status));
  if (U_FAILURE(status) || compiled == nullptr) {
    setError(error, makePatternError(pattern));
    return nullptr;
  }
  auto holder = std::make_unique<Pattern>();
  holder->compiled = std::move(compiled);
  return std::unique_ptr<RegularExpression>(new RegularExpression(std::move(holder)));
}

std::string RegularExpression::stringByReplacingMatches(std::string_view text, std::string_view replacement,
                                                        std::size_t& count) const {
  count = 0;
  UErrorCode status = U_ZERO_ERROR;
  const icu::UnicodeString subject = fromUTF8(text);
  const icu::UnicodeString substitute = fromUTF8(replacement);
  const std::unique_ptr<icu::RegexMatcher> matcher(pattern_->compiled->matcher(subject, status));
  if (U_FAILURE(status) || matcher == nullptr) return std::string(text);
  icu::UnicodeString result;
  std::size_t replaced = 0;
  while (matcher->find(status)) {
    matcher->appendReplacement(result, substitute, status);
    ++replaced;
  }
  // Nothing found leaves the text as it is, bytes that are not UTF-8 included. So does a failure: a matcher
  // out of its stack, a replacement that names a group that is not there.
  if (U_FAILURE(status) || replaced == 0) return std::string(text);
  matcher->appendTail(result);
  count = replaced;
  return toUTF8(result);
}

}  // namespace qm
