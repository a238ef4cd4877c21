// Files of clients: whatever they are, looking for the marker ends.
#include "filefacts/QMRMachoHeaderParser.hpp"
#include "fuzz/input_file.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  const qm::FileDescriptor file = inputFile(bytes, length);
  const bool isAOT = QMRMachoHeaderParser::isAOTBinaryAtPath(std::nullopt, file.get());
  // A header and the marker's first word have to be there.
  if (isAOT && length < 32) std::abort();
  return 0;
}
