// What has changed between two states of the settings, a line for each.
#pragma once

#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <utility>

#include "foundation/block.hpp"
#include "foundation/value.hpp"

namespace qm::qmr {

// Any thread. The lines of one change come together.
class SettingsChanges {
 public:
  // `failed` is called with errno when the output cannot be written any more.
  SettingsChanges(std::ostream& output, bool json, Block<void(int error)> failed)
      : output_(output), json_(json), failed_(std::move(failed)) {}

  // The state that changes are told against; what a change has brought already is newer and stays.
  void begin(const Dictionary& user, const Dictionary& system, const Array& allowList);
  void setSettings(const Dictionary& user, const Dictionary& system);
  void setAllowList(const Array& allowList);

 private:
  void compare(const char* table, const Dictionary& before, const Dictionary& after);
  void flush();
  void print(const char* table, const std::string& key, const Value& value);

  std::ostream& output_;
  const bool json_;
  const Block<void(int error)> failed_;
  std::mutex mutex_;
  std::optional<Dictionary> user_;
  std::optional<Dictionary> system_;
  std::optional<Array> allowList_;
};

}  // namespace qm::qmr
