#include "tools/qmr/settings_watch.hpp"

#include <algorithm>
#include <cerrno>

#include "tools/qmr/display_text.hpp"
#include "tools/qmr/settings_value.hpp"

namespace qm::qmr {

void SettingsChanges::begin(const Dictionary& user, const Dictionary& system, const Array& allowList) {
  const std::lock_guard lock(mutex_);
  if (!user_) user_ = user;
  if (!system_) system_ = system;
  if (!allowList_) allowList_ = allowList;
}

void SettingsChanges::setSettings(const Dictionary& user, const Dictionary& system) {
  const std::lock_guard lock(mutex_);
  if (user_) compare("user", *user_, user);
  if (system_) compare("system", *system_, system);
  user_ = user;
  system_ = system;
  flush();
}

void SettingsChanges::flush() {
  errno = 0;
  if (!(output_ << std::flush)) failed_(errno);
}

void SettingsChanges::compare(const char* table, const Dictionary& before, const Dictionary& after) {
  for (const auto& [key, value] : after) {
    const Value* old = find(before, key);
    if (old == nullptr || !(*old == value)) print(table, key, value);
  }
  for (const auto& [key, value] : before)
    if (find(after, key) == nullptr) print(table, key, Value());
}

void SettingsChanges::print(const char* table, const std::string& key, const Value& value) {
  if (json_)
    output_ << jsonText(Dictionary{{"table", table}, {"key", key}, {"value", value}}) << '\n';
  else if (value.isNull())
    output_ << table << ' ' << displayText(key) << " unset\n";
  else
    output_ << table << ' ' << displayText(key) << " = " << displayValue(value) << '\n';
}

void SettingsChanges::setAllowList(const Array& allowList) {
  const std::lock_guard lock(mutex_);
  if (allowList_ && json_ && *allowList_ != allowList)
    output_ << jsonText(Dictionary{{"allowList", allowList}}) << '\n';
  const auto printMissing = [&](const Array& from, const Array& in, const char* sign) {
    for (const Value& entry : from)
      if (std::find(in.begin(), in.end(), entry) == in.end())
        output_ << "allow-list " << sign << ' ' << displayText(entry.description()) << '\n';
  };
  if (allowList_ && !json_) {
    printMissing(*allowList_, allowList, "-");
    printMissing(allowList, *allowList_, "+");
  }
  allowList_ = allowList;
  flush();
}

}  // namespace qm::qmr
