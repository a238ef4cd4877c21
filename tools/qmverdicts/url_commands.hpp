// The commands about URLs: their arguments are URLs with a host, or host names, which stand for all hosts
// below, too.
#pragma once

#include "tools/qmverdicts/support.hpp"

namespace qm::qmverdicts {

// Each returns the exit status.
int addURLs(const Options& options);
// Of the arguments, or all of the source.
int removeURLs(const Options& options);
// The records that answers about the arguments come from.
int showURLs(const Options& options);
int countURLs(const Options& options);

}  // namespace qm::qmverdicts
