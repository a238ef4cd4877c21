// The staged installation that the running test program lies in, and the programs it starts there.
#pragma once

#include "platform/linux/run_folder.hpp"
#include "platform/linux/system_root.hpp"
#include "support/child_process.hpp"
#include "support/reputation_peer.hpp"

namespace qm::test {

namespace fs = std::filesystem;

// The installation that the test program lies in.
class Installation {
 public:
  using Service = std::unique_ptr<ChildProcess>;

  const fs::path root = systemRoot();
  const fs::path product = root / "Library/Quillmarsh/qxmac";
  const fs::path daemonSocket = root / "run/quillmarsh/com.quillmarsh.qmreputationd";
  const fs::path agentSocket = root / "run/quillmarsh/com.quillmarsh.sp.skyvaultd";
  const fs::path settingsSocket = root / "run/quillmarsh/com.quillmarsh.qmsettingsd";
  const fs::path wispSocket = root / "run/quillmarsh/com.quillmarsh.wisp.qmwpcored";

  fs::path program(const std::string& name) const { return product / "bin" / name; }
  fs::path log(const std::string& name) const { return root / (name + ".log"); }

  // Starts the program, and waits until its service answers to a connection.
  Service startDaemon() const { return startService("qmreputationd", daemonSocket); }
  Service startAgent() const { return startService("skyvaultd", agentSocket); }
  Service startSettingsDaemon() const { return startService("qmsettingsd", settingsSocket); }
  Service startWispCore() const { return startService("qmwpcored", wispSocket); }

  // Runs one of the installation's programs to its end, which must come with the status; what it printed.
  std::string run(const std::string& name, std::vector<std::string> arguments, int status = 0) const {
    arguments.insert(arguments.begin(), program(name));
    const CommandResult result = runCommand(arguments);
    if (result.exitStatus != status) throw std::runtime_error(name + ": " + result.output);
    return result.output;
  }

 private:
  Service startService(const std::string& name, const fs::path& socket) const {
    auto service = std::make_unique<ChildProcess>(std::vector<std::string>{program(name)}, true, log(name));
    if (!eventually([&] { return acceptsConnections(socket) || !service->isRunning(); }) ||
        !service->isRunning())
      throw std::runtime_error(name + " does not serve");
    return service;
  }
  static bool acceptsConnections(const fs::path& path) {
    const auto address = SocketAddress::create(path);
    const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return ::connect(socket.get(), address->address(), address->length()) == 0;
  }
};

// Agent and daemon run, and survive the test.
class RoadTest : public testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(installation_.product / "var");
    fs::remove(installation_.log("qmreputationd"));
    fs::create_directories(files_);
    agent_ = installation_.startAgent();
    daemon_ = installation_.startDaemon();
  }
  void TearDown() override {
    EXPECT_TRUE(daemon_->isRunning());
    EXPECT_TRUE(agent_->isRunning());
    daemon_->end(SIGTERM);
    agent_->end(SIGTERM);
    fs::remove_all(files_);
  }
  fs::path file(const std::string& name, const std::string& content) const {
    std::ofstream(files_ / name, std::ios::binary) << content;
    return files_ / name;
  }

  const Installation installation_{};
  const fs::path files_ = installation_.root / "files";
  Installation::Service agent_;
  Installation::Service daemon_;
};

}  // namespace qm::test
