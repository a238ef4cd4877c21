#include "platform/interruption.hpp"

#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <thread>
#include <utility>

#include "platform/file_descriptor.hpp"
#include "platform/linux/process_threads.hpp"

namespace qm {
namespace {

constexpr std::array kSignals{SIGINT, SIGTERM};

// What the signal handler may touch.
std::atomic<int> wakeDescriptor{-1};
std::atomic<int> signalThatCame{0};

void wake(int descriptor) {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(descriptor, &one, sizeof one);
}

extern "C" void interruptionHandler(int signal) {
  const int savedError = errno;
  int none = 0;
  // Ctrl-C after a polite end is a second one, although each signal has its own disposition.
  if (!signalThatCame.compare_exchange_strong(none, signal)) {
    ::signal(signal, SIG_DFL);
    ::raise(signal);  // delivered when this handler returns
  } else if (const int descriptor = wakeDescriptor.load(); descriptor >= 0) {
    wake(descriptor);
  }
  errno = savedError;
}

}  // namespace

struct Interruption::Watch {
  Block<void()> block;
  FileDescriptor event;
  std::array<struct sigaction, kSignals.size()> previous{};
  std::array<bool, kSignals.size()> installed{};
  std::thread thread;

  void install() {
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
      if (::sigaction(kSignals[i], nullptr, &previous[i]) != 0 || previous[i].sa_handler == SIG_IGN) continue;
      struct sigaction action {};
      action.sa_handler = interruptionHandler;
      action.sa_flags = SA_RESTART;
      installed[i] = ::sigaction(kSignals[i], &action, nullptr) == 0;
    }
  }
  void uninstall() {
    for (std::size_t i = 0; i < kSignals.size(); ++i)
      if (installed[i]) ::sigaction(kSignals[i], &previous[i], nullptr);
  }
  void waitForSignal() const {
    std::uint64_t count = 0;
    while (::read(event.get(), &count, sizeof count) < 0 && errno == EINTR) {
    }
    if (signalThatCame.load() != 0) block();
  }
};

Interruption::Interruption(Block<void()> block) : watch_(std::make_unique<Watch>()) {
  watch_->block = std::move(block);
  watch_->event.reset(::eventfd(0, EFD_CLOEXEC));
  if (!watch_->event) return;
  signalThatCame = 0;
  wakeDescriptor = watch_->event.get();
  watch_->thread = startThread("qm.interruption", [watch = watch_.get()] { watch->waitForSignal(); });
  if (watch_->thread.joinable()) watch_->install();
}

Interruption::~Interruption() {
  watch_->uninstall();
  if (watch_->thread.joinable()) {
    wake(watch_->event.get());
    watch_->thread.join();
  }
  wakeDescriptor = -1;
}

int Interruption::signal() const {
  return signalThatCame.load();
}

void endBySignal(int signal) {
  ::signal(signal, SIG_DFL);
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, signal);
  ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  ::raise(signal);
  std::_Exit(128 + signal);
}

void endByClosedPipe() {
  endBySignal(SIGPIPE);
}

}  // namespace qm
