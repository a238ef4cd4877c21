// The system log of a staged program, through its standard error.
#include "platform/system_log.hpp"

#include "support/child_process.hpp"

namespace {

using testing::HasSubstr;

// What the probe logs up to the next line with the text.
std::string readUntil(ChildProcess& probe, const std::string& text) {
  std::string all;
  for (std::string line = probe.readLine(); !line.empty(); line = probe.readLine()) {
    all += line + "\n";
    if (line.find(text) != std::string::npos) return all;
  }
  ADD_FAILURE() << "the probe ended";
  return all;
}

TEST(SystemLog, FollowsTheLoggingListBelowTheSystemRoot) {
  const ScratchFolder root;
  const std::string list = "Library/Preferences/Logging/Subsystems/com.quillmarsh.plist";
  const std::string program = root.path("Library/Quillmarsh/qxmac/bin/probe");
  std::filesystem::create_directories(std::filesystem::path(program).parent_path());
  std::filesystem::copy_file(QM_PROBE, program);
  ChildProcess probe({program}, true);
  const std::string before = readUntil(probe, " default Probe: done");
  EXPECT_THAT(before, HasSubstr(" error Probe: error line <private>\n"));
  EXPECT_THAT(before, testing::Not(HasSubstr("debug line")));

  root.write(
      list,
      "<plist version=\"1.0\"><dict><key>DEFAULT-OPTIONS</key><dict><key>Level</key><dict><key>Enable"
      "</key><string>debug</string></dict><key>Enable-Private-Data</key><true/></dict></dict></plist>");
  readUntil(probe, " error Probe: error line word");
  EXPECT_THAT(readUntil(probe, "error line word"), HasSubstr(" debug Probe: debug line\n"));

  // A broken one leaves the last good settings as they are.
  root.write(list, "<plist>");
  readUntil(probe, " error SystemLog: Cannot use " + root.path(list));
  readUntil(probe, "done");
  EXPECT_THAT(readUntil(probe, "done"), HasSubstr("error line word"));

  std::filesystem::remove(root.path(list));
  readUntil(probe, "error line <private>");
}

}  // namespace
