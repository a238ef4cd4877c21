#include "platform/main_bundle.hpp"

#include <utility>

#include "platform/darwin/foundation_value.hpp"

namespace qm {

MainBundle::MainBundle() {
  @autoreleasepool {
    NSBundle* bundle = NSBundle.mainBundle;
    // The framework reads the section __TEXT,__info_plist of a program without a bundle folder.
    std::optional<Value> information = valueFrom(bundle.infoDictionary, OtherObjects::described);
    if (Dictionary* entries = information ? information->as<Dictionary>() : nullptr)
      infoDictionary_ = std::move(*entries);
    bundlePath_ = textFrom(bundle.bundlePath);
  }
}

std::optional<std::string> MainBundle::pathForResource(std::string_view name) const {
  if (name.empty()) return std::nullopt;
  @autoreleasepool {
    NSString* path = [NSBundle.mainBundle pathForResource:stringFrom(name) ofType:nil];
    return path == nil ? std::nullopt : std::optional(textFrom(path));
  }
}

}  // namespace qm
