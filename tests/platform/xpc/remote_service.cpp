// A process that serves a workshop under the name it is given, and says so with a line.
#include <cstdio>

#include "remote_workshop.hpp"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const auto listener = qm::RemoteListener::createWithMachServiceName(
      argv[1], [] { std::puts("failed"), std::fflush(stdout); });
  listener->setDelegate(qm::test::admitTo(std::make_shared<qm::test::Workshop>()));
  listener->resume();
  std::puts("serving");
  std::fflush(stdout);
  qm::runMainLoop();
}
