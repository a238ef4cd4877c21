#include "tools/qmr/settings_command_line.hpp"

#include "foundation/strings.hpp"
#include "tools/qmr/settings_value.hpp"

namespace qm::qmr {
namespace {

constexpr int kLongestTimeoutSeconds = 3600;

constexpr const char* kNotes = R"(Changes are for root and the owner of the installation.

Exit status:
  0    done
  1    what was asked for is not set, or nobody took the action
  2    it could not be done, the settings daemon cannot be reached, or wrong usage
  130  interrupted by Ctrl-C (143 by SIGTERM))";

constexpr const char* kSetNotes =
    R"(VALUE is taken as JSON when it is that: 2 is an integer, 2.5 a number, true a boolean, ["a", "b"]
an array, {"k": 1} a dictionary, "2" a text. Anything else is a text as it stands, and with --text
everything is.)";

}  // namespace

SettingsCommandLine::SettingsCommandLine(CLI::App& application)
    : settings_(application.add_subcommand("settings", "Show and change the product's settings")) {
  settings_->require_subcommand(1);
  settings_->footer(kNotes);
  settings_->fallthrough();
  settings_->add_option("--timeout", timeout_, "Longest wait for the settings daemon (10)")
      ->check(CLI::Range(1, kLongestTimeoutSeconds))
      ->option_text("SECONDS");
  const auto addJSON = [this](CLI::App* command, const char* description) {
    command->add_flag("--json", options_.json, description);
  };
  addJSON(add("show", "Print all settings and the allow-list", SettingsAction::show),
          "Print one JSON object");
  CLI::App* const get = add("get", "Print one setting", SettingsAction::get);
  addKey(get);
  addJSON(get, "Print texts in quotes, too");
  CLI::App* const set = add("set", "Set one setting", SettingsAction::set);
  addKey(set);
  set->add_option("VALUE", value_, "The value, as JSON or a text")->required();
  set->add_flag("--text", isText_, "Take VALUE as a text as it stands");
  set->footer(std::string(kSetNotes) + "\n\n" + kNotes);
  addKey(add("unset", "Remove one setting", SettingsAction::unset));
  CLI::App* const list = add("allow-list", "Print the allow-list, or change it", SettingsAction::allowList);
  list->add_option("--add", options_.added, "Add an entry at the end")
      ->option_text("ENTRY")
      ->allow_extra_args(false);
  list->add_option("--remove", options_.removed, "Remove an entry")
      ->option_text("ENTRY")
      ->allow_extra_args(false);
  addJSON(list, "Print a JSON array");
  addJSON(add("watch", "Print every change until Ctrl-C", SettingsAction::watch),
          "Print one JSON object a line");
  CLI::App* const push =
      add("push-action", "Push a remote action to the processes that subscribed", SettingsAction::pushAction);
  push->add_option("NAME", options_.actionName, "The action's name")->required();
  push->add_option("DATA", actionData_, "The action's data, a JSON object ({})");
  addJSON(push, "Print one JSON object a line");
}

CLI::App* SettingsCommandLine::add(const char* name, const char* description, SettingsAction action) {
  CLI::App* const command = settings_->add_subcommand(name, description);
  command->callback([this, action] { options_.action = action; });
  return command;
}

void SettingsCommandLine::addKey(CLI::App* command) {
  command->add_option("KEY", options_.key, "The setting's name")->required();
  command->add_flag("--user", options_.ofUser, "A setting of the user, not of the system");
}

std::optional<SettingsOptions> SettingsCommandLine::options(std::string& problem) const {
  SettingsOptions options = options_;
  options.timeout = std::chrono::seconds(timeout_);
  if (options.action == SettingsAction::set) {
    std::optional<Value> value = isText_ ? Value(value_) : settingFromText(value_);
    if (value && value->as<std::string>() != nullptr && !isValidUTF8(*value->as<std::string>()))
      value = std::nullopt;
    if (!value) {
      problem = "VALUE must be UTF-8 text, hold no null and be nested no deeper than 16 levels";
      return std::nullopt;
    }
    options.value = std::move(*value);
  }
  if (options.action != SettingsAction::pushAction) return options;
  std::optional<Value> data = settingFromText(actionData_);
  if (!data || data->as<Dictionary>() == nullptr) {
    problem = "DATA must be a JSON object, without null in it";
    return std::nullopt;
  }
  options.actionData = std::move(*data->as<Dictionary>());
  return options;
}

}  // namespace qm::qmr
