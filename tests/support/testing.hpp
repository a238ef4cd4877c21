// What every test stands on: GoogleTest, the standard and POSIX headers that tests use all the time, a
// scratch folder, the recorder of log lines and the inbox for what handlers bring.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <latch>
#include <mutex>
#include <numeric>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <thread>

#include "support/inbox.hpp"
#include "support/log_recorder.hpp"
#include "support/scratch_folder.hpp"

namespace qm::test {

// A test with a folder of its own, and the log lines of its code.
class RecordedTest : public testing::Test {
 protected:
  const ScratchFolder folder;
  const LogRecorder recorder;
};

// Looks again and again until the condition holds; false when it never did. For what reports no event.
template <class Condition>
bool eventually(Condition&& condition, std::chrono::milliseconds patience = kPatience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// How many descriptors the process has open, on that file when there is one.
inline std::size_t openDescriptors(pid_t pid = ::getpid(), const std::filesystem::path& file = {}) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    std::error_code gone;
    count += file.empty() || std::filesystem::read_symlink(entry.path(), gone) == file;
  }
  return count;
}

// Nothing when it cannot be read.
inline std::string contentOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace qm::test

using namespace qm;
using namespace qm::test;
