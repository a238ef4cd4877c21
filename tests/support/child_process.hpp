// Programs that tests run: to the end for what they print, or standing by while something is done to them.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace qm::test {

// A running child. Its standard input and output are pipes, standard error is ours or goes with the output.
class ChildProcess {
 public:
  explicit ChildProcess(const std::vector<std::string>& arguments, bool mergesErrors = false) {
    std::array<int, 2> input{};
    std::array<int, 2> output{};
    if (::pipe2(input.data(), O_CLOEXEC) != 0 || ::pipe2(output.data(), O_CLOEXEC) != 0)
      throw std::runtime_error("no pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    if (mergesErrors) posix_spawn_file_actions_adddup2(&actions, output[1], STDERR_FILENO);
    std::vector<char*> pointers;
    for (const std::string& argument : arguments) pointers.push_back(const_cast<char*>(argument.c_str()));
    pointers.push_back(nullptr);
    const int failure = ::posix_spawnp(&pid_, pointers[0], &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(input[0]);
    ::close(output[1]);
    input_ = input[1];
    output_ = output[0];
    if (failure != 0) throw std::runtime_error("cannot run " + arguments[0]);
  }
  ~ChildProcess() {
    if (!status_) ::kill(pid_, SIGKILL);
    wait();
    closeInput();
    ::close(output_);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }

  void closeInput() {
    if (input_ >= 0) ::close(std::exchange(input_, -1));
  }
  // Up to the next line's end or the end of the output.
  std::string readLine() {
    std::string line;
    for (char c = 0; ::read(output_, &c, 1) == 1 && c != '\n';) line.push_back(c);
    return line;
  }
  std::string readToEnd() {
    std::string text;
    std::array<char, 4096> buffer;
    for (ssize_t count = 0; (count = ::read(output_, buffer.data(), buffer.size())) > 0;)
      text.append(buffer.data(), static_cast<std::size_t>(count));
    return text;
  }

  // Until it has ended, leaving it uncollected.
  void waitUntilEnded() {
    siginfo_t info{};
    ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
  }
  // The status of waitpid(2).
  int wait() {
    int status = 0;
    if (!status_ && ::waitpid(pid_, &status, 0) == pid_) status_ = status;
    return status_.value_or(0);
  }

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::optional<int> status_;
};

struct CommandResult {
  int exitStatus = -1;  // -1 when a signal ended it
  int signal = 0;
  std::string output;  // standard output and error
};

inline CommandResult runCommand(const std::vector<std::string>& arguments) {
  ChildProcess child(arguments, true);
  child.closeInput();
  const std::string output = child.readToEnd();
  const int status = child.wait();
  if (WIFEXITED(status)) return {.exitStatus = WEXITSTATUS(status), .output = output};
  return {.signal = WTERMSIG(status), .output = output};
}

}  // namespace qm::test
