// How the command lines of the product speak of standard input and output that fail.
#pragma once

#include <string>

namespace qm::tools {

// What is wrong with standard input or output after a read or write that failed, for people. The error is its
// errno, 0 where that is not known any more.
std::string inputProblem(int error);
std::string outputProblem(int error);

// The exit status of a program that has written all it had to say: the given one when standard output took
// it. Otherwise says so, and it is 2 at least; where nobody reads it any more, the process ends as by
// SIGPIPE.
int endOutput(const char* program, int exitStatus);

}  // namespace qm::tools
