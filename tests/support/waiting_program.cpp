// Says that it runs and waits until its standard input ends: a peer that does nothing.
#include <unistd.h>

int main() {
  if (::write(STDOUT_FILENO, "ready\n", 6) != 6) return 1;
  char c = 0;
  while (::read(STDIN_FILENO, &c, 1) > 0) {
  }
  return 0;
}
