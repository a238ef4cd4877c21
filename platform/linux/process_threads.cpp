#include "platform/linux/process_threads.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/file_descriptor.hpp"

namespace qm {
namespace {

constinit std::atomic<bool> forkedChild = false;

void watchForForks() {
  static const int failure =
      ::pthread_atfork(nullptr, nullptr, [] { forkedChild.store(true, std::memory_order_relaxed); });
  if (failure != 0) endProcess("no memory to watch for forks");
}

// A new thread starts with the mask of the one that makes it. Profilers need theirs everywhere.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    ::sigset_t signals;
    ::sigfillset(&signals);
    for (const int own : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGPROF, SIGSEGV, SIGSYS, SIGTRAP}) {
      ::sigdelset(&signals, own);
    }
    ::pthread_sigmask(SIG_SETMASK, &signals, &previous_);
  }
  ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  ::sigset_t previous_{};
};

// As ::read() of a file below /proc/self/task.
::ssize_t readThreadFile(::pid_t thread, const char* name, std::span<char> text) {
  std::array<char, 64> path{};
  std::snprintf(path.data(), path.size(), "/proc/self/task/%d/%s", thread, name);
  const FileDescriptor file(::open(path.data(), O_RDONLY | O_CLOEXEC));
  return file ? ::read(file.get(), text.data(), text.size()) : -1;
}

}  // namespace

std::thread startThread(const char* name, std::function<void()> body) {
  const SignalsBlocked blocked;
  try {
    return std::thread([name, body = std::move(body)] {
      ::pthread_setname_np(::pthread_self(), name);
      body();
    });
  } catch (const std::system_error&) {
    return {};
  }
}

bool startProcessThread(const char* name, std::function<void()> body) {
  watchForForks();
  std::thread thread = startThread(name, std::move(body));
  if (!thread.joinable()) return false;
  thread.detach();
  return true;
}

bool isRunnable(::pid_t thread) {
  std::array<char, 64> text{};
  const auto length = readThreadFile(thread, "stat", text);
  if (length < 0) return errno != ENOENT && errno != ESRCH;
  // "1234 (name) S ...", proc(5)
  const std::string_view line(text.data(), static_cast<std::size_t>(length));
  const auto nameEnd = line.rfind(") ");
  return nameEnd != std::string_view::npos && line.substr(nameEnd + 2).starts_with('R');
}

std::optional<std::uint64_t> currentSleep(::pid_t thread) {
  constexpr std::string_view kState = "\nState:\t", kSleeps = "\nvoluntary_ctxt_switches:\t";
  std::array<char, 4096> text{};
  const auto length = readThreadFile(thread, "status", text);
  if (length < 0) return {};
  const std::string_view status(text.data(), static_cast<std::size_t>(length));
  const auto state = status.find(kState), sleeps = status.find(kSleeps);
  if (state == std::string_view::npos || sleeps == std::string_view::npos) return {};
  if (status.substr(state + kState.size()).starts_with('R')) return {};
  std::uint64_t count = 0;
  std::from_chars(status.data() + sleeps + kSleeps.size(), status.data() + status.size(), count);
  return count;
}

std::size_t usableProcessors() {
  ::cpu_set_t usable;
  if (::sched_getaffinity(0, sizeof usable, &usable) == 0)
    return static_cast<std::size_t>(CPU_COUNT(&usable));
  return std::max(1U, std::thread::hardware_concurrency());
}

bool isForkedChild() {
  return forkedChild.load(std::memory_order_relaxed);
}

void requireNoForkedChild(const char* action) {
  if (isForkedChild()) endProcess(action, " in a forked child, whose threads are in its parent");
}

void endProcess(const char* message, const char* detail) {
  std::fprintf(stderr, "qm: %s%s\n", message, detail);
  std::abort();
}

}  // namespace qm
