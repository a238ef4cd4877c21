#include "platform/preferred_languages.hpp"

#include "platform/darwin/foundation_value.hpp"

namespace qm {

std::vector<std::string> preferredLanguages() {
  @autoreleasepool {
    std::vector<std::string> tags;
    for (NSString* tag in NSLocale.preferredLanguages) tags.push_back(textFrom(tag));
    return tags;
  }
}

}  // namespace qm
