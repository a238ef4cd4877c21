#include "tools/qmr/settings_command.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/interruption.hpp"
#include "settings/remote_action_protocols.hpp"
#include "tools/qmr/display_text.hpp"
#include "tools/qmr/exit_status.hpp"
#include "tools/qmr/settings_daemon.hpp"
#include "tools/qmr/settings_value.hpp"
#include "tools/qmr/settings_watch.hpp"

namespace qm::qmr {
namespace {

// What a watch waits for; may come more than once.
class End {
 public:
  // With the error that ended it.
  void come(int error = 0) {
    const std::lock_guard lock(mutex_);
    if (!hasCome_) error_ = error;
    hasCome_ = true;
    changed_.notify_all();
  }
  int wait() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return hasCome_; });
    return error_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool hasCome_ = false;
  int error_ = 0;
};

class SettingsCommand {
 public:
  SettingsCommand(const SettingsOptions& options, std::ostream& output, std::ostream& errors)
      : options_(options), output_(output), errors_(errors), daemon_(options.timeout) {}

  int run() {
    switch (options_.action) {
      case SettingsAction::show:
        return show();
      case SettingsAction::get:
        return get();
      case SettingsAction::set:
      case SettingsAction::unset:
        return change();
      case SettingsAction::allowList:
        return allowList();
      case SettingsAction::watch:
        return watch();
      case SettingsAction::pushAction:
        return pushAction();
    }
    return kBadUsage;
  }

 private:
  int failed(const std::string& problem) const {
    errors_ << "qmr: settings: " << displayText(problem) << '\n';
    return kNotAnswered;
  }
  int notThere(const std::string& what) const {
    errors_ << "qmr: settings: " << displayText(what) << '\n';
    return kNotThere;
  }
  const char* table() const { return options_.ofUser ? "user" : "system"; }

  std::optional<AllSettings> fetch() {
    std::string problem;
    const auto client = QMRSettingsClient::create();
    auto settings = daemon_.fetch(*client, problem);
    if (!settings)
      failed(problem);
    else if (const std::string why = daemon_.fileProblem(); !why.empty())
      errors_ << "qmr: settings: " << displayText(why) << ": the settings are those from before\n";
    client->shutdownWithoutUnsubscribe();  // a daemon that hangs would not take a farewell
    return settings;
  }

  void printTable(const char* name, const Dictionary& settings) const {
    for (const auto& [key, value] : settings)
      output_ << name << ' ' << displayText(key) << " = " << displayValue(value) << '\n';
  }
  void printAllowList(const Array& list, const char* before) const {
    for (const Value& entry : list) output_ << before << displayText(entry.description()) << '\n';
  }

  int show() {
    const auto settings = fetch();
    if (!settings) return kNotAnswered;
    if (options_.json) {
      output_ << jsonText(Dictionary{{"user", settings->user},
                                     {"system", settings->system},
                                     {"allowList", settings->allowList}})
              << '\n';
      return kNothingBad;
    }
    printTable("system", settings->system);
    printTable("user", settings->user);
    printAllowList(settings->allowList, "allow-list ");
    return kNothingBad;
  }

  int get() {
    const auto settings = fetch();
    if (!settings) return kNotAnswered;
    const Value* value = find(options_.ofUser ? settings->user : settings->system, options_.key);
    if (value == nullptr)
      return notThere("the " + std::string(table()) + " setting \"" + options_.key + "\" is not set");
    const std::string* text = value->as<std::string>();
    if (options_.json)
      output_ << jsonText(*value) << '\n';
    else
      output_ << (text != nullptr ? displayText(*text) : displayValue(*value)) << '\n';
    return kNothingBad;
  }

  int change() {
    std::string problem;
    bool wasThere = true;
    const Value value = options_.action == SettingsAction::set ? options_.value : Value();
    if (daemon_.change(table(), options_.key, value, wasThere, problem)) return kNothingBad;
    return wasThere ? failed(problem) : notThere(problem);
  }

  int allowList() {
    const auto settings = fetch();
    if (!settings) return kNotAnswered;
    Array list = settings->allowList;
    for (const std::string& entry : options_.removed)
      if (std::erase(list, Value(entry)) == 0)
        return notThere("\"" + entry + "\" is not on the allow-list, nothing is changed");
    for (const std::string& entry : options_.added)
      if (std::find(list.begin(), list.end(), Value(entry)) == list.end()) list.emplace_back(entry);
    if (!options_.added.empty() || !options_.removed.empty()) {
      std::string problem;
      return daemon_.setAllowList(list, problem) ? kNothingBad : failed(problem);
    }
    if (options_.json)
      output_ << jsonText(list) << '\n';
    else
      printAllowList(list, "");
    return kNothingBad;
  }

  int watch() {
    const auto end = std::make_shared<End>();
    const auto changes =
        std::make_shared<SettingsChanges>(output_, options_.json, [end](int error) { end->come(error); });
    int signal = 0;
    int error = 0;
    {
      const Interruption interruption([end] { end->come(); });
      const auto client = QMRSettingsClient::create();
      const auto isGone = std::make_shared<std::atomic<bool>>(false);
      client->addSettingsUpdateCallback([changes, isGone](const Dictionary& user, const Dictionary& system) {
        *isGone = false;
        changes->setSettings(user, system);
      });
      client->addWhitelistUpdateCallback([changes](const Array& list) { changes->setAllowList(list); });
      std::string problem;
      const auto settings = daemon_.fetch(*client, problem);
      if (!settings) return failed(problem);
      changes->begin(settings->user, settings->system, settings->allowList);
      const auto gone = [&errors = errors_, isGone] {
        if (!isGone->exchange(true))
          errors << "qmr: settings: the settings daemon is gone, waiting for it to come back\n" << std::flush;
      };
      client->setInterruptionHandler(gone);
      client->setInvalidationHandler(gone);
      errors_ << "qmr: settings: watching until Ctrl-C\n" << std::flush;
      error = end->wait();
      client->setInterruptionHandler(nullptr);
      client->setInvalidationHandler(nullptr);
      client->shutdownWithoutUnsubscribe();  // a daemon that hangs would not take a farewell
      signal = interruption.signal();
    }
    if (signal != 0) endBySignal(signal);
    if (error == EPIPE) endByClosedPipe();
    return kNotAnswered;  // the program's end says that nothing can be written
  }

  int pushAction() {
    std::string problem;
    const auto results = daemon_.push(options_.actionName, options_.actionData, problem);
    if (!results) return failed(problem);
    bool isTaken = false;
    for (const Value& result : *results) {
      const Dictionary* row = result.as<Dictionary>();
      if (row == nullptr) continue;
      isTaken = printResult(*row) || isTaken;
    }
    if (results->empty()) return notThere("no process has subscribed to remote actions");
    return isTaken ? kNothingBad : kNotThere;
  }

  // True when the process has a handler for the action.
  bool printResult(const Dictionary& row) const {
    const std::int64_t* code = find<std::int64_t>(row, "result");
    if (options_.json) {
      output_ << jsonText(row) << '\n';
      return code != nullptr && *code != kRemoteActionHasNoHandler;
    }
    const std::int64_t* process = find<std::int64_t>(row, "process");
    output_ << "process " << (process == nullptr ? 0 : *process) << ": ";
    if (code == nullptr) {
      const std::string* error = find<std::string>(row, "error");
      output_ << "error: " << displayText(error == nullptr ? "" : *error) << '\n';
      return false;
    }
    output_ << "result " << *code << (*code == kRemoteActionHasNoHandler ? " (no handler)" : "") << '\n';
    return *code != kRemoteActionHasNoHandler;
  }

  const SettingsOptions& options_;
  std::ostream& output_;
  std::ostream& errors_;
  const SettingsDaemon daemon_;
};

}  // namespace

int runSettingsCommand(const SettingsOptions& options, std::ostream& output, std::ostream& errors) {
  return SettingsCommand(options, output, errors).run();
}

}  // namespace qm::qmr
