// The commands that take many verdicts into the store at once, and give them out again.
#pragma once

#include "tools/qmverdicts/support.hpp"

namespace qm::qmverdicts {

// Each returns the exit status. An import is of one file, or "-" for standard input; one of Debian packages
// is of the system below a folder.
int importFiles(const Options& options);
int importURLs(const Options& options);
// To standard output; of the source when there is one.
int exportFiles(const Options& options);
int exportURLs(const Options& options);

}  // namespace qm::qmverdicts
