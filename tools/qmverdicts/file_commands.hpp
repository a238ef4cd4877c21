// The commands about files: their arguments are files, or the SHA-256 of files.
#pragma once

#include "tools/qmverdicts/support.hpp"

namespace qm::qmverdicts {

// Each returns the exit status.
int addFiles(const Options& options);
int removeFiles(const Options& options);
int showFiles(const Options& options);
int countFiles(const Options& options);

}  // namespace qm::qmverdicts
