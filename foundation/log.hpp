// The log front. A Log is a handle for one subsystem and category; the macros below write to it with the
// format string as it stands at the call site. The placeholders are checked against the argument types at
// compile time.
//
//   QM_LOG_ERROR(log, "Error calculating hashes for %{public}s: %{public}@", filename, error);
//
// Placeholders: %@ (anything with a description, strings raw, nil as "(null)"), %s (C strings and strings),
// %d %i (signed, at most 32 bits), %u (unsigned, at most 32 bits), %ld %lld %zd (signed), %lu %llu %zu
// (unsigned), %f with a precision, %p, %x, %%. A dynamic string or object is private unless it says {public}:
// the reader sees
// "<private>" unless private data is switched on. Numbers are public unless they say {private}.
// A call whose level is off tests one flag and evaluates no argument.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "foundation/log_format.hpp"

namespace qm {

// kQMRLogSubsystem is the subsystem of every log of the product.
inline constexpr const char* kQMRLogSubsystem = "com.quillmarsh";

enum class LogLevel : std::uint8_t { standard = 0x00, info = 0x01, debug = 0x02, error = 0x10, fault = 0x11 };
// "default", "info", "debug", "error", "fault".
const char* name(LogLevel level);

struct LogEntry {
  std::string_view subsystem;
  std::string_view category;
  LogLevel level = LogLevel::standard;
  std::string_view message;  // rendered, private parts as the configuration says
  // Where the message has private parts that are still to be hidden; only for a sink that decides.
  std::span<const log_format::Range> privateParts{};
};

// Where the lines go. Called from any thread, also several at once; must not log itself.
class LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void write(const LogEntry& entry) = 0;
  // For a sink that decides: whether it takes info and debug lines just now.
  virtual bool isEnabled(std::string_view /*subsystem*/, std::string_view /*category*/, LogLevel /*level*/) {
    return true;
  }
};

// What is switched on for one subsystem and category.
struct LogSettings {
  bool info = false;
  bool debug = false;
  bool privateData = false;
  // The others do not count: the sink, a system's log with settings of its own, is asked at each line and
  // hides private parts itself.
  bool sinkDecides = false;
};
using LogSettingsSource = LogSettings (*)(std::string_view subsystem, std::string_view category);

// Installs the sink for all handles, made and to come; null discards everything (the state at the start).
void setLogSink(std::shared_ptr<LogSink> sink);
// Asks the source for every handle there is, and for each new one when it is made. Null: nothing but default,
// error and fault, private data hidden.
void setLogSettings(LogSettingsSource source);

class Log {
 public:
  // The same pair gives the same handle, which is never freed.
  static Log& create(std::string_view subsystem, std::string_view category);

  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  const std::string& subsystem() const { return subsystem_; }
  const std::string& category() const { return category_; }
  bool isEnabled(LogLevel level) const {
    if (level != LogLevel::debug && level != LogLevel::info) return true;
    const unsigned flags = flags_.load(std::memory_order_relaxed);
    if ((flags & kSinkDecides) != 0) return sinkWants(level);
    return (flags & (level == LogLevel::debug ? kDebug : kInfo)) != 0;
  }

  // Not for callers: the macros come here with a checked format.
  template <class... Arguments>
  void write(LogLevel level, const char* format, const Arguments&... arguments) {
    const std::array<log_format::Argument, sizeof...(Arguments)> packed{
        log_format::pack<std::decay_t<const Arguments&>>(arguments)...};
    emit(level, log_format::render(format, packed.data(), packed.size(), privateParts()));
  }

 private:
  friend struct LogRegistry;
  static constexpr unsigned kInfo = 1, kDebug = 2, kPrivate = 4, kSinkDecides = 8;

  Log(std::string_view subsystem, std::string_view category) : subsystem_(subsystem), category_(category) {}
  bool sinkWants(LogLevel level) const;
  log_format::PrivateParts privateParts() const;
  void emit(LogLevel level, const log_format::Line& line);

  const std::string subsystem_;
  const std::string category_;
  std::atomic<unsigned> flags_{0};
};

}  // namespace qm

#define QM_LOG_AT(log, level, format, ...)                                           \
  do {                                                                               \
    static_assert(decltype(::qm::log_format::typesOf(__VA_ARGS__))::matches(format), \
                  "the log format does not fit its arguments");                      \
    if (::qm::Log& qmLogHandle = (log); qmLogHandle.isEnabled(level))                \
      qmLogHandle.write((level), (format)__VA_OPT__(, ) __VA_ARGS__);                \
  } while (false)

#define QM_LOG(log, format, ...) QM_LOG_AT(log, ::qm::LogLevel::standard, format __VA_OPT__(, ) __VA_ARGS__)
#define QM_LOG_INFO(log, format, ...) QM_LOG_AT(log, ::qm::LogLevel::info, format __VA_OPT__(, ) __VA_ARGS__)
#define QM_LOG_DEBUG(log, format, ...) \
  QM_LOG_AT(log, ::qm::LogLevel::debug, format __VA_OPT__(, ) __VA_ARGS__)
#define QM_LOG_ERROR(log, format, ...) \
  QM_LOG_AT(log, ::qm::LogLevel::error, format __VA_OPT__(, ) __VA_ARGS__)
#define QM_LOG_FAULT(log, format, ...) \
  QM_LOG_AT(log, ::qm::LogLevel::fault, format __VA_OPT__(, ) __VA_ARGS__)
