#include "platform/system_log.hpp"

#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <mutex>

#include "foundation/log.hpp"
#include "platform/linux/log_settings_file.hpp"
#include "platform/linux/system_log_sinks.hpp"
#include "platform/system_root.hpp"

namespace qm {
namespace {

// Time for whoever writes the settings to finish, before an unusable file is complained about.
constexpr std::chrono::milliseconds kSettlingTime{1000};

std::string settingsPath() {
  return hostPath("/Library/Preferences/Logging/Subsystems/" + std::string(kQMRLogSubsystem) + ".plist");
}

void reportBrokenSettings(const ErrorPtr& error) {
  static Log& log = Log::create(kQMRLogSubsystem, "SystemLog");
  QM_LOG_ERROR(log, "Cannot use %{public}s, the last logging settings stay: %{public}@", settingsPath(),
               error);
}

void applySettings();

// Never destroyed: threads log until the process is gone.
const LogSettingsFile& settingsFile() {
  static const LogSettingsFile& file =
      *new LogSettingsFile(settingsPath(), kSettlingTime, applySettings, reportBrokenSettings);
  return file;
}

// Only the product's own subsystem has a list.
LogSettings settingsFor(std::string_view subsystem, std::string_view category) {
  return subsystem == kQMRLogSubsystem ? settingsFile().forCategory(category) : LogSettings();
}

void applySettings() {
  setLogSettings(settingsFor);
}

}  // namespace

void installSystemLog() {
  static std::once_flag once;
  std::call_once(once, [] {
    std::shared_ptr<LogSink> sink = std::make_shared<StreamLogSink>(STDERR_FILENO);
    if (isConnectedToJournal(STDERR_FILENO, std::getenv("JOURNAL_STREAM")))
      sink = std::make_shared<JournalLogSink>(std::move(sink));
    setLogSink(std::move(sink));
    settingsFile();
    applySettings();
  });
}

}  // namespace qm
