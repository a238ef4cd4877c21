// Runs a fuzz target once over every file of a corpus folder, without libFuzzer: the corpus as a regression
// test.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length);

int main(int argumentCount, char** arguments) {
  if (argumentCount != 2) {
    std::cerr << "usage: " << arguments[0] << " CORPUS_FOLDER\n";
    return 2;
  }
  bool any = false;
  for (const auto& entry : std::filesystem::directory_iterator(arguments[1])) {
    std::cout << entry.path().filename().native() << std::endl;  // should this be the last one
    std::ifstream file(entry.path(), std::ios::binary);
    if (!file) return 1;
    const std::vector<char> content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    // An allocation of exactly the input's size, so that a read past its end is caught.
    const std::vector<std::uint8_t> bytes(content.begin(), content.end());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    any = true;
  }
  return any ? 0 : 1;
}
