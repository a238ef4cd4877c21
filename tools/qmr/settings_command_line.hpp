// The part of the command line below "qmr settings".
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

#include "tools/qmr/settings_options.hpp"

namespace qm::qmr {

class SettingsCommandLine {
 public:
  // Adds the command; this object must live as long as the application.
  explicit SettingsCommandLine(CLI::App& application);
  SettingsCommandLine(const SettingsCommandLine&) = delete;
  SettingsCommandLine& operator=(const SettingsCommandLine&) = delete;

  bool parsed() const { return settings_->parsed(); }
  // After the application has parsed. Nothing and what is wrong for values that cannot be taken.
  std::optional<SettingsOptions> options(std::string& problem) const;

 private:
  CLI::App* add(const char* name, const char* description, SettingsAction action);
  void addKey(CLI::App* command);

  CLI::App* settings_;
  SettingsOptions options_;
  std::string value_;
  bool isText_ = false;
  std::string actionData_ = "{}";
  int timeout_ = static_cast<int>(SettingsOptions{}.timeout.count());
};

}  // namespace qm::qmr
