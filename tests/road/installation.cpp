#include "road/installation.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>
#include <thread>
#include <utility>

#include "support/child_process.hpp"

namespace qm::test {

namespace {

bool acceptsConnections(const fs::path& path) {
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  path.native().copy(address.sun_path, sizeof address.sun_path - 1);
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool connected = ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::close(socket);
  return connected;
}

}  // namespace

Process::Process(const fs::path& program, const std::vector<std::string>& arguments, const fs::path& log) {
  std::vector<char*> words{const_cast<char*>(program.c_str())};
  for (const std::string& argument : arguments) words.push_back(const_cast<char*>(argument.c_str()));
  words.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ > 0) return;
  ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
  ::dup2(::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644), STDOUT_FILENO);
  ::dup2(STDOUT_FILENO, STDERR_FILENO);
  ::execv(words[0], words.data());
  ::_exit(127);
}

Process::Process(Process&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}

Process& Process::operator=(Process&& other) noexcept {
  std::swap(pid_, other.pid_);
  return *this;
}

Process::~Process() {
  if (pid_ > 0) end(SIGKILL);
}

bool Process::isRunning() const {
  siginfo_t info{};
  return pid_ > 0 && ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == 0;
}

void Process::end(int signal) {
  ::kill(pid_, signal);
  ::kill(pid_, SIGCONT);
  wait();
}

int Process::wait() {
  int status = 0;
  ::waitpid(std::exchange(pid_, -1), &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Process Installation::startService(const std::string& name, const fs::path& socket) const {
  Process process(program(name), {}, log(name));
  if (!eventually([&] { return acceptsConnections(socket) || !process.isRunning(); }) || !process.isRunning())
    throw std::runtime_error(name + " does not serve");
  return process;
}

std::string Installation::run(const std::string& name, std::vector<std::string> arguments, int status) const {
  arguments.insert(arguments.begin(), program(name));
  const CommandResult result = runCommand(arguments);
  if (result.exitStatus != status) throw std::runtime_error(name + ": " + result.output);
  return result.output;
}

std::size_t openDescriptors(pid_t pid, const fs::path& file) {
  std::size_t count = 0;
  for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    std::error_code gone;
    count += file.empty() || fs::read_symlink(entry.path(), gone) == file;
  }
  return count;
}

void pauseBriefly() {
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

void RoadTest::SetUp() {
  fs::remove_all(installation_.product / "var");
  fs::remove(installation_.log("qmreputationd"));
  fs::create_directories(files_);
  agent_ = installation_.startAgent();
  daemon_ = installation_.startDaemon();
}

void RoadTest::TearDown() {
  EXPECT_TRUE(daemon_.isRunning());
  EXPECT_TRUE(agent_.isRunning());
  daemon_.end(SIGTERM);
  agent_.end(SIGTERM);
  fs::remove_all(files_);
}

fs::path RoadTest::file(const std::string& name, const std::string& content) const {
  std::ofstream(files_ / name, std::ios::binary) << content;
  return files_ / name;
}

}  // namespace qm::test
