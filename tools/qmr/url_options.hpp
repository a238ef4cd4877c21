// What "qmr url" is asked to do.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace qm::qmr {

struct URLOptions {
  std::vector<std::string> urls;  // "-" reads URLs from standard input
  bool cloudScan = false;         // of the Wisp backend: a cloud scan instead of the query
  bool json = false;
  std::size_t jobs = 32;
  std::chrono::seconds timeout{10};  // for the answer about one URL
  // What a backend may take beyond the time-out it was given, before it is not waited for any more.
  std::chrono::milliseconds grace{1000};
  bool quiet = false;  // no summary, no progress
};

}  // namespace qm::qmr
