// The commands about files: their arguments are files, or the SHA-256 or SHA-1 of files.
#pragma once

#include "tools/qmverdicts/support.hpp"

namespace qm::qmverdicts {

// Each returns the exit status.
int addFiles(const Options& options);
// Of the arguments, or all of the source.
int removeFiles(const Options& options);
int showFiles(const Options& options);
int countFiles(const Options& options);

}  // namespace qm::qmverdicts
