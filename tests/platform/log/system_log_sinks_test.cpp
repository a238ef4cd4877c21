#include "platform/linux/system_log_sinks.hpp"

#include "platform/activity.hpp"
#include "platform/file_descriptor.hpp"
#include "support/testing.hpp"

namespace {

constexpr LogEntry kEntry{
    .subsystem = "s", .category = "Category", .level = LogLevel::error, .message = "one\ntwo\x1b[0m\ttab é"};

std::string readSome(int descriptor) {
  std::string text(65536, '\0');
  text.resize(static_cast<std::size_t>(std::max<ssize_t>(::read(descriptor, text.data(), text.size()), 0)));
  return text;
}

TEST(SystemLogLine, StaysOneLineWhateverTheMessageHolds) {
  EXPECT_EQ(systemLogLine(kEntry, Date{1697685137'000012345}, 0),
            "2023-10-19T03:12:17.000012Z error Category: one\\ntwo\\x1b[0m\\ttab é\n");
}

TEST(StreamLogSink, WritesTheActivityAndDropsLinesThatNobodyCanTake) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  FileDescriptor reader(ends[0]);
  const FileDescriptor writer(ends[1]);
  StreamLogSink sink(writer.get());
  initiateActivity("a", [&] { sink.write(kEntry); });
  EXPECT_THAT(readSome(reader.get()),
              testing::MatchesRegex("[0-9T:.-]+Z error Category activity=[0-9]+: one.*\n"));
  for (int i = 0; i < 10000; ++i) sink.write(kEntry);  // full long before
  EXPECT_GT(readSome(reader.get()).size(), 4096U);
  reader.reset();
  errno = 4711;
  sink.write(kEntry);  // the process's SIGPIPE would end the test
  EXPECT_EQ(errno, 4711);
}

TEST(JournalConnection, IsRecognisedByDeviceAndInode) {
  struct stat status {};
  ASSERT_EQ(::fstat(0, &status), 0);
  const std::string device = std::to_string(status.st_dev);
  const std::string inode = std::to_string(status.st_ino);
  EXPECT_TRUE(isConnectedToJournal(0, (device + ":" + inode).c_str()));
  for (const std::string& other : {device + ":" + inode + "1", device + "1:" + inode, std::string()})
    EXPECT_FALSE(isConnectedToJournal(0, other.c_str())) << other;
}

}  // namespace
