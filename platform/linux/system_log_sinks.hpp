// The sinks behind installSystemLog.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/log.hpp"
#include "foundation/value.hpp"

namespace qm {

// The descriptor is the stream that the service manager connected to the journal: its device and inode are
// those of the text "DEVICE:INODE", as in the environment variable JOURNAL_STREAM (systemd.exec(5)). Null:
// false.
bool isConnectedToJournal(int descriptor, const char* journalStream);

// One line with its newline: "2026-11-21T07:13:13.123456Z error QMRHashProvider activity=7: message". Without
// an activity (0) its part falls away. Control characters of the message are escaped, so that it stays one
// line.
std::string systemLogLine(const LogEntry& entry, Date time, std::uint64_t activity);

// Writes each line to a descriptor with one write(2). What cannot be written is dropped: a reader that is
// gone or a full pipe that does not block neither ends nor holds up the process.
class StreamLogSink final : public LogSink {
 public:
  // The descriptor stays the caller's.
  explicit StreamLogSink(int descriptor);
  void write(const LogEntry& entry) override;

 private:
  const int descriptor_;
  const bool mayBreak_;  // a pipe or a socket, whose reader may be gone
};

// Sends each line to the journal with the fields MESSAGE, PRIORITY, SYSLOG_IDENTIFIER (the program),
// SUBSYSTEM, CATEGORY, LEVEL, and of the current activity ACTIVITY_ID and ACTIVITY. What the journal does not
// take goes to the other sink.
class JournalLogSink final : public LogSink {
 public:
  explicit JournalLogSink(std::shared_ptr<LogSink> otherwise);
  void write(const LogEntry& entry) override;

 private:
  const std::shared_ptr<LogSink> otherwise_;
};

}  // namespace qm
