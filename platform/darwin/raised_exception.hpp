// The framework's exceptions, which must not leave the calls that may raise one: nothing here is prepared for
// them, and one that nobody catches ends the process. For sources in Objective-C++.
#pragma once

#import <Foundation/Foundation.h>

#include <optional>
#include <string>

#include "platform/darwin/foundation_value.hpp"

namespace qm {

// The reason of the exception that the work raised; nothing when it raised none. Handlers of ours do not
// belong into it: an exception of theirs would be taken for one of the framework's. C++ exceptions pass.
template <class Work>
std::optional<std::string> reasonRaisedBy(const Work& work) {
  @autoreleasepool {
    @try {
      work();
    } @catch (NSException* exception) {
      const std::string reason = textFrom(exception.reason);
      return reason.empty() ? "an exception without a reason" : reason;
    }
    return std::nullopt;
  }
}

}  // namespace qm
