// Program files of peers: whatever they are, looking for the section ends.
#include "platform/linux/elf_section.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

#include "platform/file_descriptor.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  constexpr std::size_t kMaximumSize = 4096;
  const qm::FileDescriptor file(::memfd_create("elf", MFD_CLOEXEC));
  if (::write(file.get(), bytes, length) != static_cast<ssize_t>(length)) std::abort();
  const std::optional<qm::Data> content = qm::readElfSection(file.get(), qm::kInfoPlistSection, kMaximumSize);
  if (content && (content->length() > kMaximumSize || content->length() > length)) std::abort();
  return 0;
}
