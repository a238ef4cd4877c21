#include "platform/main_bundle.hpp"

namespace qm {
namespace {

std::optional<std::string> stringForKey(const Dictionary& dictionary, std::string_view key) {
  const std::string* const value = find<std::string>(dictionary, key);
  return value == nullptr ? std::nullopt : std::optional<std::string>(*value);
}

}  // namespace

const MainBundle& MainBundle::instance() {
  static const MainBundle bundle;
  return bundle;
}

std::optional<std::string> MainBundle::bundleIdentifier() const {
  return stringForKey(infoDictionary_, "CFBundleIdentifier");
}

std::optional<std::string> MainBundle::shortVersionString() const {
  return stringForKey(infoDictionary_, "CFBundleShortVersionString");
}

}  // namespace qm
