#include "tools/standard_streams.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iostream>

#include "foundation/error.hpp"
#include "platform/interruption.hpp"

namespace qm::tools {
namespace {

constexpr int kNotWritten = 2;

}  // namespace

std::string inputProblem(int error) {
  if (error == EBADF) return "standard input is closed";
  return "standard input cannot be read: " + systemErrorText(error);
}

std::string outputProblem(int error) {
  if (error == EBADF) return "the output cannot be written: standard output is closed";
  return "the output cannot be written" + (error == 0 ? "" : ": " + systemErrorText(error));
}

int endOutput(const char* program, int exitStatus) {
  errno = 0;
  std::cout.flush();
  std::fflush(stdout);
  const int error = errno;
  if (std::cout && std::ferror(stdout) == 0) return exitStatus;
  if (error == EPIPE) endByClosedPipe();
  std::cerr << program << ": " << outputProblem(error) << '\n';
  return std::max(exitStatus, kNotWritten);
}

}  // namespace qm::tools
