// Any bytes as a program file with a signature at its end. Nobody's root is installed, so none may pass.
#include "platform/linux/code_signature.hpp"

#include "fuzz/input_file.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  const qm::FileDescriptor program = inputFile(bytes, length);
  qm::AppendedSignature signature;
  if (qm::readAppendedSignature(program.get(), signature) == qm::kSecSuccess &&
      signature.contentLength + qm::appendedBytes(signature.cms).size() != length)
    std::abort();
  const std::atomic<bool> cancelled{false};
  qm::CodeFacts code;
  if (qm::verifyAppendedSignature(program.get(), "/dev/null/no-anchors", cancelled, code) == qm::kSecSuccess)
    std::abort();
  return 0;
}
