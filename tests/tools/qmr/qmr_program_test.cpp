// The program itself: staged into an installation with a namespace of its own, run as a person would run it.

#include "platform/linux/system_root.hpp"
#include "support/child_process.hpp"
#include "support/scripted_service.hpp"

namespace {

class QmrProgramTest : public ::testing::Test {
 protected:
  QmrProgramTest() {
    std::filesystem::create_directories(bin);
    std::filesystem::copy_file(QM_QMR, program);
    std::ofstream(bin + "/namespace") << space << "\n";
  }
  ~QmrProgramTest() override { std::filesystem::remove_all(installation); }

  const std::string space = "t" + std::to_string(::getpid());
  const std::string installation = systemRoot() + "/Library/Quillmarsh-" + space;
  const std::string bin = installation + "/qxmac/bin";
  const std::string program = bin + "/qmr";
  const std::string serviceName = "com.quillmarsh." + space + ".qmreputationd";
  ScratchFolder folder;
  const std::string clean = folder.write("clean", "x");
};

TEST_F(QmrProgramTest, ItAsksTheServiceOfItsOwnInstallationAndToleratesAClosedPipe) {
  {
    const ScriptedService service(serviceName, [](const XPCDictionary& request) { answer(request, {}); });
    const CommandResult good = runCommand({program, "check", clean});
    EXPECT_EQ(good.exitStatus, 0);
    EXPECT_NE(good.output.find("\n1 file: 1 trusted\n"), std::string::npos) << good.output;
    EXPECT_EQ(good.output.find('\x1b'), std::string::npos);  // no terminal, no colour
    EXPECT_EQ(runCommand({program, "ping"}).exitStatus, 0);
    const CommandResult piped = runCommand(
        {"bash", "-c",
         "yes " + clean + " | head -3000 | " + program + " check - | head -1; exit ${PIPESTATUS[2]}"});
    EXPECT_EQ(piped.exitStatus, 128 + SIGPIPE);
    EXPECT_EQ(piped.output.find('\n'), piped.output.size() - 1) << piped.output;
  }
  const CommandResult alone = runCommand({program, "check", clean});
  EXPECT_EQ(alone.exitStatus, 2);
  EXPECT_EQ(alone.output, "qmr: the reputation service " + serviceName + " cannot be reached at " +
                              systemRoot() + "/run/quillmarsh/" + serviceName + "\n");
}

TEST_F(QmrProgramTest, StandardStreamsThatAreClosedOrFailAreSaid) {
  const ScriptedService service(serviceName, [](const XPCDictionary& request) { answer(request, {}); });
  const std::string full = "qmr: the output cannot be written: No space left on device\n";
  const std::string closed = "qmr: the output cannot be written: standard output is closed\n";
  const std::string summary = "1 file: 1 trusted\n";
  const std::tuple<std::string, std::string> cases[] = {
      {"check - <&-", "qmr: standard input is closed\n0 files\n"},
      {"check - </", "qmr: standard input cannot be read: Is a directory\n0 files\n"},
      {"check " + clean + " >&-", closed + summary},
      {"check " + clean + " >/dev/full", full + summary},
      {"ping <&- >&-", closed},
      {"ping >/dev/full", full},
      {"--version >/dev/full", full},
  };
  for (const auto& [arguments, output] : cases) {
    SCOPED_TRACE(arguments);
    const CommandResult result = runCommand({"bash", "-c", "exec " + program + " " + arguments});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_EQ(result.output, output);
  }
}

TEST_F(QmrProgramTest, WordsThatAskForNothingItCanDoAreNamed) {
  const std::pair<std::string, std::string> cases[] = {
      {"nonsense", "qmr: \"nonsense\" is no command\n"},
      {"settings nonsense", "qmr: \"nonsense\" is no command\n"},
      {"settings --nonsense", "qmr: \"--nonsense\" is no option\n"},
      {"settings", "qmr: A subcommand is required\n"},
      {"check -j0 x", "qmr: --jobs: "},
  };
  for (const auto& [arguments, problem] : cases) {
    const CommandResult result = runCommand({"bash", "-c", program + " " + arguments});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_EQ(result.output.substr(0, problem.size()), problem);
  }
}

TEST_F(QmrProgramTest, CtrlCLeavesATrueSummaryAndEndsByTheSignal) {
  const std::string silent = folder.write("silent", "x");
  std::promise<void> asked;
  std::vector<XPCDictionary> held;
  const ScriptedService service(serviceName, [&](const XPCDictionary& request) {
    if (request.getString("filename") == clean) return answer(request, {});
    held.push_back(request);
    asked.set_value();
  });
  // It also waits for more paths, which never come.
  ChildProcess running({program, "check", "-j1", clean, silent, "-"}, true);
  asked.get_future().wait();
  ::kill(running.pid(), SIGINT);
  EXPECT_NE(running.readToEnd().find("\n2 files: 1 trusted; 1 not answered\n"), std::string::npos);
  EXPECT_EQ(running.wait(), 128 + SIGINT);
}

}  // namespace
