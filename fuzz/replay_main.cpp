// Runs a fuzz target once over every file of a corpus folder, without libFuzzer: the corpus as a regression
// test.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length);

namespace {

bool replay(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return false;
  }
  const std::vector<char> content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  // An allocation of exactly the input's size, so that a read past its end is caught.
  const std::vector<std::uint8_t> bytes(content.begin(), content.end());
  std::printf("%s\n", path.filename().c_str());
  std::fflush(stdout);
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  return true;
}

std::vector<std::filesystem::path> filesOf(const char* folder) {
  std::error_code failure;
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder, failure))
    if (entry.is_regular_file()) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int argumentCount, char** arguments) {
  if (argumentCount != 2) {
    std::fprintf(stderr, "usage: %s CORPUS_FOLDER\n", arguments[0]);
    return 2;
  }
  const std::vector<std::filesystem::path> files = filesOf(arguments[1]);
  if (files.empty()) {
    std::fprintf(stderr, "no input in %s\n", arguments[1]);
    return 1;
  }
  bool all = true;
  for (const std::filesystem::path& file : files) all = replay(file) && all;
  return all ? 0 : 1;
}
