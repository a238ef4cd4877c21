#include "platform/interruption.hpp"

#include <poll.h>

#include "support/testing.hpp"

namespace {

// Status of a child that raises the signal twice, the second time when its block has run.
int statusAfterTwo(int signal, bool isIgnored) {
  const pid_t child = ::fork();
  if (child == 0) {
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0) ::_exit(1);
    if (isIgnored) ::signal(signal, SIG_IGN);
    const Interruption interruption([&] { (void)!::write(ends[1], "x", 1); });
    ::kill(::getpid(), signal);
    char byte = 0;
    if (!isIgnored && ::read(ends[0], &byte, 1) != 1) ::_exit(1);
    ::kill(::getpid(), signal);
    if (isIgnored) ::_exit(interruption.signal());
    while (true) ::poll(nullptr, 0, -1);
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  return status;
}

TEST(Interruption, TheFirstSignalRunsTheBlockTheSecondEndsTheProcessAndAnIgnoredOneDoesNothing) {
  for (const int signal : {SIGINT, SIGTERM}) {
    const int status = statusAfterTwo(signal, false);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << signal;
  }
  EXPECT_EQ(statusAfterTwo(SIGINT, true), 0);
}

}  // namespace
