#include "platform/linux/system_log_sinks.hpp"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/linux/activity_context.hpp"

namespace qm {
namespace {

template <class Number>
bool readNumber(std::string_view& text, Number& number) {
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (failure != std::errc()) return false;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return true;
}

std::string timestamp(Date time) {
  using namespace std::chrono;
  const sys_time<nanoseconds> point{nanoseconds(time.nanosecondsSince1970)};
  const sys_days day = floor<days>(point);
  const year_month_day calendar(day);
  const hh_mm_ss clock(floor<microseconds>(point) - day);
  char text[64];
  const int length = std::snprintf(
      text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%06dZ", static_cast<int>(calendar.year()),
      static_cast<unsigned>(calendar.month()), static_cast<unsigned>(calendar.day()),
      static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
      static_cast<int>(clock.seconds().count()), static_cast<int>(clock.subseconds().count()));
  return {text, static_cast<std::size_t>(length)};
}

void appendOnOneLine(std::string& out, std::string_view message) {
  for (const char c : message) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7f) {
      out.push_back(c);
    } else if (c == '\n') {
      out.append("\\n");
    } else if (c == '\r') {
      out.append("\\r");
    } else if (c == '\t') {
      out.append("\\t");
    } else {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned>(byte));
      out.append(escape);
    }
  }
}

bool isPipeOrSocket(int descriptor) {
  struct stat status {};
  return ::fstat(descriptor, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
}

// Keeps the SIGPIPE of a write by this thread from the process, without touching the process's handler.
class BrokenPipeGuard {
 public:
  BrokenPipeGuard() {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipe_, &previous_);
  }
  ~BrokenPipeGuard() {
    const timespec now{};
    if (!wasPending_)
      while (sigtimedwait(&pipe_, nullptr, &now) < 0 && errno == EINTR) {
      }
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
  }
  BrokenPipeGuard(const BrokenPipeGuard&) = delete;
  BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;

 private:
  sigset_t pipe_{};
  sigset_t previous_{};
  bool wasPending_ = false;
};

void writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

int syslogPriority(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return LOG_DEBUG;
    case LogLevel::info:
      return LOG_INFO;
    case LogLevel::standard:
      return LOG_NOTICE;
    case LogLevel::error:
      return LOG_ERR;
    case LogLevel::fault:
      return LOG_CRIT;
  }
  return LOG_NOTICE;
}

}  // namespace

bool isConnectedToJournal(int descriptor, const char* journalStream) {
  if (journalStream == nullptr) return false;
  std::string_view text = journalStream;
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  if (!readNumber(text, device) || !text.starts_with(':')) return false;
  text.remove_prefix(1);
  if (!readNumber(text, inode) || !text.empty()) return false;
  struct stat status {};
  return ::fstat(descriptor, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

std::string systemLogLine(const LogEntry& entry, Date time, std::uint64_t activity) {
  std::string line = timestamp(time);
  line.append(" ").append(name(entry.level)).append(" ");
  appendOnOneLine(line, entry.category);
  if (activity != 0) line.append(" activity=").append(std::to_string(activity));
  line.append(": ");
  appendOnOneLine(line, entry.message);
  line.push_back('\n');
  return line;
}

StreamLogSink::StreamLogSink(int descriptor)
    : descriptor_(descriptor), mayBreak_(isPipeOrSocket(descriptor)) {}

void StreamLogSink::write(const LogEntry& entry) {
  const int savedErrno = errno;
  const std::string line = systemLogLine(entry, Date::now(), currentActivity().id);
  if (mayBreak_) {
    const BrokenPipeGuard guard;
    writeAll(descriptor_, line);
  } else {
    writeAll(descriptor_, line);
  }
  errno = savedErrno;
}

JournalLogSink::JournalLogSink(std::shared_ptr<LogSink> otherwise) : otherwise_(std::move(otherwise)) {}

void JournalLogSink::write(const LogEntry& entry) {
  const int savedErrno = errno;
  const ActivityContext activity = currentActivity();
  std::vector<std::string> fields{
      "MESSAGE=" + std::string(entry.message),
      "PRIORITY=" + std::to_string(syslogPriority(entry.level)),
      "SYSLOG_IDENTIFIER=" + std::string(program_invocation_short_name),
      "SUBSYSTEM=" + std::string(entry.subsystem),
      "CATEGORY=" + std::string(entry.category),
      "LEVEL=" + std::string(name(entry.level)),
  };
  if (activity.id != 0) {
    fields.push_back("ACTIVITY_ID=" + std::to_string(activity.id));
    fields.push_back("ACTIVITY=" + std::string(activity.description == nullptr ? "" : activity.description));
  }
  std::vector<iovec> parts;
  for (std::string& field : fields) parts.push_back({.iov_base = field.data(), .iov_len = field.size()});
  const int failure = sd_journal_sendv(parts.data(), static_cast<int>(parts.size()));
  if (failure < 0) otherwise_->write(entry);
  errno = savedErrno;
}

}  // namespace qm
