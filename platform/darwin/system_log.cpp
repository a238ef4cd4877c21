#include "platform/system_log.hpp"

#include <os/log.h>

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "foundation/log.hpp"

namespace qm {
namespace {

// A line with more private parts has the rest of it, from the last of these on, in one private part.
constexpr std::size_t kMostPrivateParts = 4;

// The line as public and private stretches in turn, a public one first and last.
using Stretches = std::array<std::string, 2 * kMostPrivateParts + 1>;

// Returns how many private ones there are.
std::size_t divide(const LogEntry& entry, Stretches& stretches) {
  const std::size_t count = std::min(entry.privateParts.size(), kMostPrivateParts);
  std::size_t position = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const log_format::Range& part = entry.privateParts[i];
    const bool isRest = i + 1 == count && entry.privateParts.size() > count;
    const std::size_t end = isRest ? entry.message.size() : part.end;
    stretches[2 * i] = entry.message.substr(position, part.begin - position);
    stretches[2 * i + 1] = entry.message.substr(part.begin, end - part.begin);
    position = end;
  }
  stretches[2 * count] = entry.message.substr(position);
  return count;
}

// The unified log. The lines were put together already, and it takes literal formats only: there is one for
// each number of private parts, which so stay private or not as the system's settings say.
class UnifiedLogSink final : public LogSink {
 public:
  void write(const LogEntry& entry) override {
    const os_log_t log = handle(entry.subsystem, entry.category);
    const auto type = static_cast<os_log_type_t>(entry.level);
    Stretches s;
    switch (divide(entry, s)) {
      case 0:
        os_log_with_type(log, type, "%{public}s", s[0].c_str());
        break;
      case 1:
        os_log_with_type(log, type, "%{public}s%{private}s%{public}s", s[0].c_str(), s[1].c_str(),
                         s[2].c_str());
        break;
      case 2:
        os_log_with_type(log, type, "%{public}s%{private}s%{public}s%{private}s%{public}s", s[0].c_str(),
                         s[1].c_str(), s[2].c_str(), s[3].c_str(), s[4].c_str());
        break;
      case 3:
        os_log_with_type(
            log, type, "%{public}s%{private}s%{public}s%{private}s%{public}s%{private}s%{public}s",
            s[0].c_str(), s[1].c_str(), s[2].c_str(), s[3].c_str(), s[4].c_str(), s[5].c_str(), s[6].c_str());
        break;
      default:
        os_log_with_type(
            log, type,
            "%{public}s%{private}s%{public}s%{private}s%{public}s%{private}s%{public}s%{private}s%{public}s",
            s[0].c_str(), s[1].c_str(), s[2].c_str(), s[3].c_str(), s[4].c_str(), s[5].c_str(), s[6].c_str(),
            s[7].c_str(), s[8].c_str());
        break;
    }
  }

  bool isEnabled(std::string_view subsystem, std::string_view category, LogLevel level) override {
    return os_log_type_enabled(handle(subsystem, category), static_cast<os_log_type_t>(level));
  }

 private:
  // Made once for each pair and never freed, as the system does it, too.
  os_log_t handle(std::string_view subsystem, std::string_view category) {
    const std::lock_guard lock(mutex_);
    auto its = handles_.find(subsystem);
    if (its == handles_.end()) its = handles_.emplace(std::string(subsystem), Categories()).first;
    const auto found = its->second.find(category);
    if (found != its->second.end()) return found->second;
    std::string name(category);
    const os_log_t log = os_log_create(its->first.c_str(), name.c_str());
    its->second.emplace(std::move(name), log);
    return log;
  }

  using Categories = std::map<std::string, os_log_t, std::less<>>;
  std::mutex mutex_;
  std::map<std::string, Categories, std::less<>> handles_;
};

}  // namespace

void installSystemLog() {
  static std::once_flag once;
  std::call_once(once, [] {
    setLogSink(std::make_shared<UnifiedLogSink>());
    setLogSettings([](std::string_view, std::string_view) { return LogSettings{.sinkDecides = true}; });
  });
}

}  // namespace qm
