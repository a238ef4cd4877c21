// What "qmr settings" is asked to do.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "foundation/value.hpp"

namespace qm::qmr {

enum class SettingsAction : std::uint8_t { show, get, set, unset, allowList, watch, pushAction };

struct SettingsOptions {
  SettingsAction action = SettingsAction::show;
  bool ofUser = false;  // else of the system
  std::string key;
  Value value;                         // to set
  std::vector<std::string> added{};    // to the allow-list
  std::vector<std::string> removed{};  // from the allow-list
  std::string actionName{};            // to push
  Dictionary actionData{};
  bool json = false;
  std::chrono::seconds timeout{10};  // of one call
};

}  // namespace qm::qmr
