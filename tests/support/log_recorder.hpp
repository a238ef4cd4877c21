// Records every log line while it lives, private data and all levels included. One at a time in a process.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/log.hpp"

namespace qm::test {

struct LogLine {
  std::string category;
  LogLevel level = LogLevel::standard;
  std::string message;
};

class LogRecorder {
 public:
  LogRecorder() : sink_(std::make_shared<Sink>()) {
    setLogSettings([](std::string_view, std::string_view) {
      return LogSettings{.info = true, .debug = true, .privateData = true};
    });
    setLogSink(sink_);
  }
  ~LogRecorder() {
    setLogSink(nullptr);
    setLogSettings(nullptr);
  }
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  std::vector<LogLine> lines() const {
    std::lock_guard lock(sink_->mutex);
    return sink_->lines;
  }
  // How many lines of the level have exactly this text.
  std::size_t count(LogLevel level, std::string_view message) const {
    std::size_t found = 0;
    for (const LogLine& line : lines()) found += line.level == level && line.message == message;
    return found;
  }
  bool has(LogLevel level, std::string_view message) const { return count(level, message) > 0; }
  // Some line of the level contains the text.
  bool hasContaining(LogLevel level, std::string_view part) const {
    for (const LogLine& line : lines())
      if (line.level == level && line.message.find(part) != std::string::npos) return true;
    return false;
  }

  bool hasError(std::string_view part) const { return hasContaining(LogLevel::error, part); }

 private:
  struct Sink final : LogSink {
    void write(const LogEntry& entry) override {
      std::lock_guard lock(mutex);
      lines.push_back({std::string(entry.category), entry.level, std::string(entry.message)});
    }
    std::mutex mutex;
    std::vector<LogLine> lines;
  };
  std::shared_ptr<Sink> sink_;
};

}  // namespace qm::test
