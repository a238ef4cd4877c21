#include "daemon/DLog.hpp"

#include "support/testing.hpp"

namespace {

struct Fruit {
  std::string description() const { return "<fruit>"; }
};

TEST(DLog, WritesADebugLineThatIsPrivateAsAWholeUnderTheProgramsIdentifier) {
  const LogRecorder recorder;
  const std::string path = "/secret";
  DLog("%@ at %{public}s: %d of %lu, 100%%", Fruit(), path, -3, std::size_t{7});
  DLog("nothing to fill");
  setLogSettings([](std::string_view, std::string_view) { return LogSettings{.debug = true}; });
  DLog("%{public}s", path.c_str());
  setLogSettings(nullptr);
  DLog("%@", Fruit());

  const std::vector<LogLine> lines = recorder.lines();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0].message, "<fruit> at /secret: -3 of 7, 100%");
  EXPECT_EQ(lines[1].message, "nothing to fill");
  EXPECT_EQ(lines[2].message, "<private>");
  for (const LogLine& line : lines) {
    EXPECT_EQ(line.category, "com.quillmarsh.test.dlog");
    EXPECT_EQ(line.level, LogLevel::debug);
  }
}

}  // namespace
