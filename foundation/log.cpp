#include "foundation/log.hpp"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <map>
#include <mutex>
#include <utility>

#include "foundation/utf8.hpp"

namespace qm {

// All handles of the process, and what they write to. Made at first use and never destroyed, since threads
// may log while the process exits.
struct LogRegistry {
  static LogRegistry& shared() {
    static LogRegistry& registry = *new LogRegistry;
    return registry;
  }

  Log& handle(std::string_view subsystem, std::string_view category) {
    const std::lock_guard lock(mutex);
    Log*& log = handles[{std::string(subsystem), std::string(category)}];
    if (log == nullptr) {
      log = new Log(subsystem, category);
      apply(*log);
    }
    return *log;
  }

  void setSource(LogSettingsSource newSource) {
    const std::lock_guard lock(mutex);
    source = newSource;
    for (const auto& [key, log] : handles) apply(*log);
  }

  std::shared_ptr<LogSink> currentSink() {
    const std::lock_guard lock(sinkMutex);
    return sink;
  }

  void setSink(std::shared_ptr<LogSink> newSink) {
    const std::lock_guard lock(sinkMutex);
    sink.swap(newSink);  // the old one is released outside the lock
  }

 private:
  void apply(Log& log) const {
    const LogSettings settings = source == nullptr ? LogSettings() : source(log.subsystem(), log.category());
    const unsigned flags = (settings.info ? Log::kInfo : 0) | (settings.debug ? Log::kDebug : 0) |
                           (settings.privateData ? Log::kPrivate : 0) |
                           (settings.sinkDecides ? Log::kSinkDecides : 0);
    log.flags_.store(flags, std::memory_order_relaxed);
  }

  std::mutex mutex;
  std::map<std::pair<std::string, std::string>, Log*> handles;
  LogSettingsSource source = nullptr;

  std::mutex sinkMutex;
  std::shared_ptr<LogSink> sink;
};

const char* name(LogLevel level) {
  switch (level) {
    case LogLevel::standard:
      return "default";
    case LogLevel::info:
      return "info";
    case LogLevel::debug:
      return "debug";
    case LogLevel::error:
      return "error";
    case LogLevel::fault:
      return "fault";
  }
  return "default";
}

void setLogSink(std::shared_ptr<LogSink> sink) {
  LogRegistry::shared().setSink(std::move(sink));
}

void setLogSettings(LogSettingsSource source) {
  LogRegistry::shared().setSource(source);
}

Log& Log::create(std::string_view subsystem, std::string_view category) {
  return LogRegistry::shared().handle(subsystem, category);
}

bool Log::sinkWants(LogLevel level) const {
  const std::shared_ptr<LogSink> sink = LogRegistry::shared().currentSink();
  return sink != nullptr && sink->isEnabled(subsystem_, category_, level);
}

log_format::PrivateParts Log::privateParts() const {
  const unsigned flags = flags_.load(std::memory_order_relaxed);
  if ((flags & kSinkDecides) != 0) return log_format::PrivateParts::marked;
  return (flags & kPrivate) != 0 ? log_format::PrivateParts::shown : log_format::PrivateParts::hidden;
}

void Log::emit(LogLevel level, const log_format::Line& line) {
  const std::shared_ptr<LogSink> sink = LogRegistry::shared().currentSink();
  if (sink == nullptr) return;
  sink->write({.subsystem = subsystem_,
               .category = category_,
               .level = level,
               .message = line.text,
               .privateParts = line.privateParts});
}

namespace log_format {
namespace {

// Print is called with a buffer and its size, and returns what snprintf does.
template <class Print>
void appendPrinted(std::string& out, const Print& print) {
  char text[512];  // enough for a double near its limit
  const int length = print(text, sizeof text);
  if (length > 0) out.append(text, std::min(static_cast<std::size_t>(length), sizeof text - 1));
}

// At most so many bytes of the text, whole scalars only; a negative precision takes all.
std::string_view limited(std::string_view text, int precision) {
  if (precision < 0 || text.size() <= static_cast<std::size_t>(precision)) return text;
  std::size_t end = 0;
  while (end < text.size()) {
    const std::size_t next = end + decodeUTF8(text, end).length;
    if (next > static_cast<std::size_t>(precision)) break;
    end = next;
  }
  return text.substr(0, end);
}

void appendLiteral(std::string& out, std::string_view literal) {
  for (std::size_t i = 0; i < literal.size(); ++i) {
    out.push_back(literal[i]);
    if (literal[i] == '%') ++i;  // "%%"
  }
}

bool isText(const Placeholder& placeholder) {
  return placeholder.conversion == '@' || placeholder.conversion == 's';
}

bool isNil(const Argument& text) {
  return text.kind == Argument::Kind::pointer ? text.pointer == nullptr : text.kind != Argument::Kind::text;
}

// That there is no text is no secret.
bool isPrivate(const Placeholder& placeholder, const Argument& argument) {
  if (placeholder.privacy == Privacy::isPublic) return false;
  return isText(placeholder) ? !isNil(argument) : placeholder.privacy == Privacy::isPrivate;
}

void appendText(std::string& out, const Placeholder& placeholder, const Argument& argument, bool hidden) {
  if (isNil(argument))
    out.append("(null)");
  else if (hidden)
    out.append("<private>");
  else if (argument.kind == Argument::Kind::pointer && argument.describe != nullptr)
    out.append(limited(argument.describe(argument.pointer), placeholder.precision));
  else
    out.append(limited(argument.text, placeholder.precision));
}

void appendNumber(std::string& out, const Placeholder& placeholder, const Argument& argument) {
  appendPrinted(out, [&](char* text, std::size_t size) {
    const int precision = placeholder.precision;
    switch (placeholder.conversion) {
      case 'd':
        return std::snprintf(text, size, "%.*" PRId64, precision, argument.signedNumber);
      case 'u':
        return std::snprintf(text, size, "%.*" PRIu64, precision, argument.unsignedNumber);
      case 'x':
        return std::snprintf(text, size, "%.*" PRIx64, precision, argument.unsignedNumber);
      case 'f':
        return std::snprintf(text, size, "%.*f", precision, argument.real);
      case 'p':
        return std::snprintf(text, size, "0x%" PRIxPTR, reinterpret_cast<std::uintptr_t>(argument.pointer));
      default:
        return 0;
    }
  });
}

void appendArgument(std::string& out, const Placeholder& placeholder, const Argument& argument, bool hidden) {
  if (isText(placeholder))
    appendText(out, placeholder, argument, hidden);
  else if (hidden)
    out.append("<private>");
  else
    appendNumber(out, placeholder, argument);
}

}  // namespace

Line render(std::string_view format, const Argument* arguments, std::size_t count,
            PrivateParts privateParts) {
  Line line;
  line.text.reserve(format.size() + 32 * count);
  std::size_t position = 0;
  for (std::size_t used = 0;; ++used) {
    const Placeholder placeholder = nextPlaceholder(format, position);
    appendLiteral(line.text, format.substr(position, placeholder.literalLength));
    if (placeholder.conversion == 0 || used == count) return line;
    const std::size_t begin = line.text.size();
    const bool isItsPrivate = isPrivate(placeholder, arguments[used]);
    appendArgument(line.text, placeholder, arguments[used],
                   isItsPrivate && privateParts == PrivateParts::hidden);
    if (isItsPrivate && privateParts == PrivateParts::marked && line.text.size() > begin)
      line.privateParts.push_back({begin, line.text.size()});
    position = placeholder.next;
  }
}

}  // namespace log_format
}  // namespace qm
