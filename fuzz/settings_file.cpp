// Any bytes as a settings file: taken, or refused with a place; and what was taken can be changed without
// anything else of it getting lost.
#include "companions/settings_document.hpp"

#include <cstdlib>
#include <string>

namespace {

void checkChange(const qm::SettingsDocument& document, const std::string& key, const qm::Value& value) {
  qm::ErrorPtr error;
  const auto changed = document.withChanges(qm::SettingsTable::system, {{key, value}}, &error);
  if (changed.has_value() == (error != nullptr)) std::abort();
  if (!changed) return;
  qm::Settings expected = document.settings();
  expected.system.erase(key);
  if (!value.isNull()) expected.system.emplace(key, value);
  if (!(changed->settings() == expected)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  qm::ErrorPtr error;
  const auto document = qm::SettingsDocument::parse({reinterpret_cast<const char*>(bytes), length}, &error);
  if (document.has_value() == (error != nullptr)) std::abort();  // one of the two, never both
  if (error != nullptr && !error->localizedDescription().starts_with("line ")) std::abort();
  if (!document) return 0;
  checkChange(*document, "new", "text");
  const auto& system = document->settings().system;
  if (!system.empty()) checkChange(*document, system.begin()->first, 2);
  if (!system.empty()) checkChange(*document, system.rbegin()->first, qm::Value());
  qm::Array list = document->settings().allowList;
  list.emplace_back("added");
  if (list.size() > 1) list.erase(list.begin());
  if (const auto changed = document->withAllowList(list); changed && changed->settings().allowList != list)
    std::abort();
  return 0;
}
