// The staged installation that the running test program lies in, and the programs it starts there.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace qm::test {

namespace fs = std::filesystem;

// A child process; killed with SIGKILL and reaped at the latest when the object goes.
class Process {
 public:
  Process() = default;
  // Standard output and error are appended to the log file, standard input is empty.
  Process(const fs::path& program, const std::vector<std::string>& arguments, const fs::path& log);
  Process(Process&& other) noexcept;
  Process& operator=(Process&& other) noexcept;
  ~Process();

  pid_t pid() const { return pid_; }
  bool isRunning() const;
  // Sends the signal, also when it is stopped, and reaps the process.
  void end(int signal);
  // Waits for it to end by itself; its exit status, or 128 + signal.
  int wait();

 private:
  pid_t pid_ = -1;
};

// The installation around /proc/self/exe.
struct Installation {
  fs::path root = fs::canonical(fs::read_symlink("/proc/self/exe").parent_path() / "../../../..");
  fs::path product = root / "Library/Quillmarsh/qxmac";
  fs::path daemonSocket = root / "run/quillmarsh/com.quillmarsh.qmreputationd";
  fs::path agentSocket = root / "run/quillmarsh/com.quillmarsh.sp.skyvaultd";

  fs::path program(const std::string& name) const { return product / "bin" / name; }
  fs::path log(const std::string& name) const { return root / (name + ".log"); }

  // Starts the program, and waits until its service answers to a connection.
  Process startDaemon() const { return startService("qmreputationd", daemonSocket); }
  Process startAgent() const { return startService("skyvaultd", agentSocket); }

  // Runs one of the installation's programs to its end, which must come with the status; what it printed.
  std::string run(const std::string& name, std::vector<std::string> arguments, int status = 0) const;

 private:
  Process startService(const std::string& name, const fs::path& socket) const;
};

// How many descriptors the process has open, on that file when there is one.
std::size_t openDescriptors(pid_t pid, const fs::path& file = {});

void pauseBriefly();

// Looks every few milliseconds until the condition holds; false after the deadline.
template <class Condition>
bool eventually(Condition&& condition, std::chrono::seconds deadline = std::chrono::seconds(20)) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    pauseBriefly();
  }
  return true;
}

// Agent and daemon run, and the daemon survives the test.
class RoadTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  fs::path file(const std::string& name, const std::string& content) const;

  const Installation installation_;
  const fs::path files_ = installation_.root / "files";
  Process agent_;
  Process daemon_;
};

}  // namespace qm::test
