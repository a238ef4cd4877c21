#include "platform/terminal.hpp"

#include <sys/ioctl.h>
#include <unistd.h>

namespace qm {
namespace {

int descriptorOf(StandardStream stream) {
  return stream == StandardStream::output ? STDOUT_FILENO : STDERR_FILENO;
}

}  // namespace

bool isTerminal(StandardStream stream) {
  return ::isatty(descriptorOf(stream)) == 1;
}

unsigned terminalWidth(StandardStream stream) {
  struct winsize size {};
  return ::ioctl(descriptorOf(stream), TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

}  // namespace qm
