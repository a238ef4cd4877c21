// Programs that tests run: to the end for what they print, or standing by while something is done to them.
// Link qm_platform for it.
#pragma once

#include <spawn.h>

#include "platform/file_descriptor.hpp"
#include "support/testing.hpp"

namespace qm::test {

// Nobody else has the write end: the read end says when its last holder is gone.
struct Pipe {
  Pipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    readEnd.reset(ends[0]);
    writeEnd.reset(ends[1]);
  }
  // Waits for it.
  bool isWriteEndClosedEverywhere() {
    writeEnd.reset();
    char byte = 0;
    return ::read(readEnd.get(), &byte, 1) == 0;
  }

  FileDescriptor readEnd;
  FileDescriptor writeEnd;
};

// A child process; killed with SIGKILL and reaped at the latest when the object goes. Its standard input and
// output are pipes.
class ChildProcess {
 public:
  // Standard error is ours or goes with the output; both are appended to the log file when there is one.
  explicit ChildProcess(const std::vector<std::string>& arguments, bool mergesErrors = false,
                        const std::string& log = {}) {
    Pipe input;
    Pipe output;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input.readEnd.get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output.writeEnd.get(), STDOUT_FILENO);
    if (!log.empty())
      posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                       0644);
    if (mergesErrors) posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    std::vector<char*> words;
    for (const std::string& argument : arguments) words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    const int failure = ::posix_spawnp(&pid_, words[0], &actions, nullptr, words.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failure != 0) throw std::runtime_error("cannot run " + arguments[0]);
    input_ = std::move(input.writeEnd);
    output_ = std::move(output.readEnd);
  }
  ~ChildProcess() { end(SIGKILL); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  bool isRunning() const { return hasNotEnded(WNOHANG); }

  void write(const std::string& text) {
    if (::write(input_.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
      throw std::runtime_error("the input takes no more");
  }
  void closeInput() { input_.reset(); }
  // Up to the next line's end or the end of the output.
  std::string readLine() {
    std::string line;
    for (char c = 0; ::read(output_.get(), &c, 1) == 1 && c != '\n';) line.push_back(c);
    return line;
  }
  std::string readToEnd() {
    std::string text;
    std::array<char, 4096> buffer;
    for (ssize_t count = 0; (count = ::read(output_.get(), buffer.data(), buffer.size())) > 0;)
      text.append(buffer.data(), static_cast<std::size_t>(count));
    return text;
  }

  // Until it has ended, leaving it uncollected.
  void waitUntilEnded() const { hasNotEnded(0); }
  // Until it has ended by itself; its exit status, or 128 + signal.
  int wait() {
    int status = 0;
    if (!status_ && ::waitpid(pid_, &status, 0) == pid_)
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return status_.value_or(-1);
  }
  // Sends the signal, also when it is stopped, and waits.
  void end(int signal) {
    if (!status_) ::kill(pid_, signal);
    if (!status_) ::kill(pid_, SIGCONT);
    wait();
  }

 private:
  bool hasNotEnded(int options) const {
    siginfo_t info{};
    return !status_ && ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT | options) == 0 &&
           info.si_pid == 0;
  }

  pid_t pid_ = -1;
  FileDescriptor input_;
  FileDescriptor output_;
  std::optional<int> status_;
};

struct CommandResult {
  int exitStatus = -1;  // or 128 + signal
  std::string output;   // standard output and error
};

inline CommandResult runCommand(const std::vector<std::string>& arguments) {
  ChildProcess child(arguments, true);
  child.closeInput();
  std::string output = child.readToEnd();
  return {child.wait(), std::move(output)};
}

}  // namespace qm::test
