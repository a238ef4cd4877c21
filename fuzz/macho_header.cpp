// Files of clients: whatever they are, looking for the marker ends.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

#include "filefacts/QMRMachoHeaderParser.hpp"
#include "platform/file_descriptor.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  const qm::FileDescriptor file(::memfd_create("macho", MFD_CLOEXEC));
  if (::write(file.get(), bytes, length) != static_cast<ssize_t>(length)) std::abort();
  const bool isAOT = QMRMachoHeaderParser::isAOTBinaryAtPath(std::nullopt, file.get());
  // A header and the marker's first word have to be there.
  if (isAOT && length < 32) std::abort();
  return 0;
}
