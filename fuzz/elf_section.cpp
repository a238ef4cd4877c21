// Program files of peers: whatever they are, looking for the section ends.
#include "platform/linux/elf_section.hpp"

#include "fuzz/input_file.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  constexpr std::size_t kMaximumSize = 4096;
  const qm::FileDescriptor file = inputFile(bytes, length);
  const std::optional<qm::Data> content = qm::readElfSection(file.get(), qm::kInfoPlistSection, kMaximumSize);
  if (content && (content->length() > kMaximumSize || content->length() > length)) std::abort();
  return 0;
}
