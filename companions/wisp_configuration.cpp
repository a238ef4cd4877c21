#include "companions/wisp_configuration.hpp"

#include "companions/wisp_error.hpp"
#include "platform/secure_coding.hpp"

namespace qm {

namespace {

// About what the value takes in memory beside its bookkeeping: its texts, and a number's size for the rest.
std::size_t contentSize(const Value& value) {
  std::size_t size = sizeof(std::int64_t);
  if (const auto* text = value.as<std::string>()) return size + text->size();
  if (const auto* object = value.as<ObjectPtr>()) return size + (*object)->description().size();
  if (const auto* array = value.as<Array>())
    for (const Value& member : *array) size += contentSize(member);
  if (const auto* dictionary = value.as<Dictionary>())
    for (const auto& [key, member] : *dictionary) size += key.size() + contentSize(member);
  return size;
}

}  // namespace

WispConfiguration::Configuration WispConfiguration::configuration() const {
  const std::lock_guard lock(mutex_);
  return configuration_;
}

ErrorPtr WispConfiguration::setConfiguration(const Configuration& configuration) {
  if (configuration == nullptr) return makeWispError(WispError::badRequest, "There is no configuration");
  if (contentSize(configuration->fields()) > kMaximumConfigurationSize)
    return makeWispError(WispError::tooLarge, "The configuration is larger than is kept");
  const std::lock_guard lock(mutex_);
  configuration_ = configuration;
  return nullptr;
}

Value WispConfiguration::setting(std::int64_t key) const {
  const std::lock_guard lock(mutex_);
  const auto found = settings_.find(key);
  return found == settings_.end() ? Value() : found->second;
}

ErrorPtr WispConfiguration::setSetting(std::int64_t key, const Value& value) {
  if (contentSize(value) > kMaximumSettingSize)
    return makeWispError(WispError::tooLarge, "The value is larger than is kept");
  const std::lock_guard lock(mutex_);
  if (value.isNull()) {
    settings_.erase(key);
    return nullptr;
  }
  if (settings_.size() >= kMaximumSettings && !settings_.contains(key))
    return makeWispError(WispError::tooMany, "As many settings as are kept have a value");
  settings_.insert_or_assign(key, value);
  return nullptr;
}

}  // namespace qm
