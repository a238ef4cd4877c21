#include "platform/text.hpp"

#include <utility>

#include "platform/darwin/foundation_value.hpp"

namespace qm {

std::string lowercaseString(std::string_view text) {
  @autoreleasepool {
    return textFrom(stringFrom(text).lowercaseString);
  }
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  @autoreleasepool {
    return [stringFrom(a) caseInsensitiveCompare:stringFrom(b)] == NSOrderedSame;
  }
}

int compareStrings(std::string_view a, std::string_view b) {
  @autoreleasepool {
    return static_cast<int>([stringFrom(a) compare:stringFrom(b)]);
  }
}

struct RegularExpression::Pattern {
  NSRegularExpression* expression;
};

RegularExpression::RegularExpression(std::unique_ptr<Pattern> pattern) : pattern_(std::move(pattern)) {}
RegularExpression::~RegularExpression() = default;

std::unique_ptr<RegularExpression> RegularExpression::create(std::string_view pattern, bool caseInsensitive,
                                                             ErrorPtr* error) {
  @autoreleasepool {
    NSError* failure = nil;
    NSRegularExpression* expression = [NSRegularExpression
        regularExpressionWithPattern:stringFrom(pattern)
                             options:caseInsensitive ? NSRegularExpressionCaseInsensitive : 0
                               error:&failure];
    if (expression == nil) {
      setError(error, errorFrom(failure));
      return nullptr;
    }
    return std::unique_ptr<RegularExpression>(
        new RegularExpression(std::make_unique<Pattern>(Pattern{.expression = expression})));
  }
}

std::string RegularExpression::stringByReplacingMatches(std::string_view text, std::string_view replacement,
                                                        std::size_t& count) const {
  @autoreleasepool {
    NSMutableString* result = [stringFrom(text) mutableCopy];
    count = [pattern_->expression replaceMatchesInString:result
                                                 options:0
                                                   range:NSMakeRange(0, result.length)
                                            withTemplate:stringFrom(replacement)];
    // Nothing found leaves the text as it is, bytes that are not UTF-8 included.
    return count == 0 ? std::string(text) : textFrom(result);
  }
}

}  // namespace qm
