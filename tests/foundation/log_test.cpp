#include "foundation/log.hpp"

#include "support/testing.hpp"

namespace {

enum class Colour : std::uint8_t { red = 3 };

struct Fruit {
  std::string description() const { return "<fruit>"; }
};

Log& testLog() {
  return Log::create(kQMRLogSubsystem, "LogTest");
}

TEST(LogLines, HideDynamicTextAndObjectsUnlessTheyArePublic) {
  const LogRecorder recorder;
  setLogSettings(nullptr);
  const std::string path = "/secret";
  const Fruit fruit;
  QM_LOG(testLog(), "%s %@ %{public}s %{public}@ %{private}@", path, fruit, path, fruit, "x");
  EXPECT_EQ(recorder.lines().back().message, "<private> <private> /secret <fruit> <private>");
  QM_LOG(testLog(), "%d %{private}d %lu %.2f %{private}f", 1, 2, std::size_t{3}, 0.125, 1.0);
  EXPECT_EQ(recorder.lines().back().message, "1 <private> 3 0.12 <private>");
  setLogSettings([](std::string_view, std::string_view) { return LogSettings{.privateData = true}; });
  QM_LOG(testLog(), "%s %{private}d %@", path, 2, fruit);
  EXPECT_EQ(recorder.lines().back().message, "/secret 2 <fruit>");
}

TEST(LogLines, FillEveryKindOfPlaceholder) {
  const LogRecorder recorder;
  const void* pointer = reinterpret_cast<const void*>(std::uintptr_t{0xabc0});
  const void* none = nullptr;
  QM_LOG(testLog(), "100%% %p %p|%x %u|%ld %lld %zu", pointer, none, 255U, 7U, -1L, -2LL, std::size_t{9});
  QM_LOG(testLog(), "%d %d %.3f %f %.3d", true, Colour::red, 2.0 / 3, 1.5, 7);
  const char* text = nullptr;
  QM_LOG(testLog(), "%@ %s %@ %@", std::make_shared<Fruit>(), text, ErrorPtr(), std::optional<std::string>());
  QM_LOG(testLog(), "%.3s|%.3s", "abcdef", "a\u20AC");
  const std::vector<LogLine> lines = recorder.lines();
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0].message, "100% 0xabc0 0x0|ff 7|-1 -2 9");
  EXPECT_EQ(lines[1].message, "1 3 0.667 1.500000 007");
  EXPECT_EQ(lines[2].message, "<fruit> (null) (null) (null)");
  EXPECT_EQ(lines[3].message, "abc|a");
}

TEST(LogLevels, ThatAreOffEvaluateNothing) {
  const LogRecorder recorder;
  setLogSettings(nullptr);
  int evaluated = 0;
  const auto argument = [&] { return ++evaluated; };
  QM_LOG_DEBUG(testLog(), "%d", argument());
  QM_LOG_INFO(testLog(), "%d", argument());
  EXPECT_EQ(evaluated, 0);
  setLogSettings([](std::string_view, std::string_view category) {
    return LogSettings{.info = true, .debug = category == "LogTest"};
  });
  QM_LOG_DEBUG(testLog(), "%d", argument());
  QM_LOG_DEBUG(Log::create(kQMRLogSubsystem, "LogTestOther"), "%d", argument());  // made after the settings
  EXPECT_EQ(evaluated, 1);
}

// A system's log that has settings of its own.
TEST(LogSinks, MayDecideAtEachLineAndHidePrivatePartsThemselves) {
  struct Deciding final : LogSink {
    void write(const LogEntry& entry) override {
      line = entry.message;
      for (auto part = entry.privateParts.rbegin(); part != entry.privateParts.rend(); ++part)
        line.replace(part->begin, part->end - part->begin, "#");
    }
    bool isEnabled(std::string_view, std::string_view category, LogLevel level) override {
      return category == "LogTest" && level == wanted;
    }
    LogLevel wanted = LogLevel::info;
    std::string line;
  };
  const auto sink = std::make_shared<Deciding>();
  setLogSink(sink);
  setLogSettings(
      [](auto, auto) { return LogSettings{.debug = true, .privateData = true, .sinkDecides = true}; });
  QM_LOG_DEBUG(testLog(), "debug");
  QM_LOG_DEBUG(Log::create(kQMRLogSubsystem, "LogTestOther"), "debug");
  EXPECT_EQ(sink->line, "");
  sink->wanted = LogLevel::debug;
  QM_LOG_DEBUG(testLog(), "%@ in %{public}s, %{private}d%s %@", "a", "b", 1, "", nullptr);
  EXPECT_EQ(sink->line, "# in b, # (null)");
  setLogSink(nullptr);
  setLogSettings(nullptr);
}

TEST(LogFormats, AreCheckedAgainstTheirArguments) {
  using log_format::Types;
  static_assert(Types<std::string, int>::matches("%@ %d"));
  static_assert(!Types<int>::matches("%@ %d"), "one argument too few");
  static_assert(!Types<int>::matches("%s") && !Types<std::string>::matches("%d"));
  static_assert(!Types<long>::matches("%d"), "would be cut");
  static_assert(!Types<int>::matches("%d%"), "ends within a placeholder");
}

// For ThreadSanitizer: lines are written while the sink and the settings change and handles are made.
TEST(LogSinks, CanBeSwappedWhileLinesAreWritten) {
  struct Counter final : LogSink {
    explicit Counter(std::atomic<int>& alive) : alive_(alive) { ++alive_; }
    ~Counter() override { --alive_; }
    void write(const LogEntry& entry) override { EXPECT_TRUE(entry.message.ends_with(" <private>")); }
    std::atomic<int>& alive_;
  };
  std::atomic<int> alive{0};
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers;
  for (int i = 0; i < 2; ++i)
    writers.emplace_back([&stop, i] {
      while (!stop) QM_LOG_ERROR(Log::create("swap", std::to_string(i)), "%d %@", i, "text");
    });
  for (int i = 0; i < 200; ++i) {
    setLogSink(std::make_shared<Counter>(alive));
    setLogSettings([](auto, auto) { return LogSettings{.debug = true}; });
  }
  stop = true;
  for (std::thread& writer : writers) writer.join();
  EXPECT_EQ(alive, 1);
  setLogSink(nullptr);
  setLogSettings(nullptr);
  EXPECT_EQ(alive, 0);
}

}  // namespace
