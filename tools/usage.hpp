// How the command lines of the product answer to words that ask for nothing they can do.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace qm::tools {

struct UsageEnd {
  std::string text;      // whole lines
  bool isError = false;  // else help or a version that was asked for
};

// What to print, with the program's name before an error, when the application's parse threw this.
UsageEnd endOfUsage(const CLI::App& application, const CLI::ParseError& error);

// Prints that; the exit status is 2 for an error.
int printUsage(const CLI::App& application, const CLI::ParseError& error);

}  // namespace qm::tools
