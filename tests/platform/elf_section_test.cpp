#include "platform/linux/elf_section.hpp"

#include <elf.h>
#include <sys/mman.h>

#include "platform/file_io.hpp"
#include "support/testing.hpp"

namespace {

// A file of header, two contents and a table of three sections: null, names, and the wanted one.
struct Image {
  Elf64_Ehdr header{};
  Elf64_Shdr sections[3]{};
  std::string names{"\0.names\0.info_plist\0", 20};
  std::string content = "<plist/>";

  Image() {
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = ELFCLASS64;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_shentsize = sizeof(Elf64_Shdr);
    header.e_shnum = 3;
    header.e_shstrndx = 1;
    header.e_shoff = sizeof header + names.size() + content.size();
    sections[1].sh_type = SHT_STRTAB;
    sections[1].sh_name = 1;
    sections[1].sh_offset = sizeof header;
    sections[1].sh_size = names.size();
    sections[2].sh_type = SHT_PROGBITS;
    sections[2].sh_name = 8;
    sections[2].sh_offset = sizeof header + names.size();
    sections[2].sh_size = content.size();
  }

  std::string bytes() const {
    return std::string(reinterpret_cast<const char*>(&header), sizeof header) + names + content +
           std::string(reinterpret_cast<const char*>(sections), sizeof sections);
  }
};

std::optional<Data> infoPlistOf(const std::string& bytes, std::size_t maximumSize = 100) {
  const FileDescriptor file(::memfd_create("elf", MFD_CLOEXEC));
  EXPECT_EQ(::write(file.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  return readElfSection(file.get(), kInfoPlistSection, maximumSize);
}

const Data kContent("<plist/>", 8);

TEST(ElfSection, IsFoundByItsNameWithinItsLimit) {
  EXPECT_EQ(infoPlistOf(Image().bytes() + "appended signature", 8), kContent);
  EXPECT_EQ(infoPlistOf(Image().bytes(), 7), std::nullopt);
  // Counts too large for the header stand in the first section.
  Image image;
  image.header.e_shnum = 0;
  image.header.e_shstrndx = SHN_XINDEX;
  image.sections[0].sh_size = 3;
  image.sections[0].sh_link = 1;
  EXPECT_EQ(infoPlistOf(image.bytes()), kContent);
}

TEST(ElfSection, NoFileIsBelievedUnchecked) {
  const std::pair<const char*, std::function<void(Image&)>> faults[] = {
      {"32 bits", [](Image& image) { image.header.e_ident[EI_CLASS] = ELFCLASS32; }},
      {"table offset wraps", [](Image& image) { image.header.e_shoff = UINT64_MAX - 10; }},
      {"a huge extended count",
       [](Image& image) {
         image.header.e_shnum = 0;
         image.sections[0].sh_size = UINT64_MAX / 64 + 2;
       }},
      {"name table index out of range", [](Image& image) { image.header.e_shstrndx = 3; }},
      {"name table too large", [](Image& image) { image.sections[1].sh_size = UINT64_MAX; }},
      {"content offset wraps", [](Image& image) { image.sections[2].sh_offset = UINT64_MAX - 3; }},
      {"no content in the file", [](Image& image) { image.sections[2].sh_type = SHT_NOBITS; }},
  };
  for (const auto& [name, spoil] : faults) {
    Image image;
    spoil(image);
    EXPECT_EQ(infoPlistOf(image.bytes()), std::nullopt) << name;
  }
  const std::string whole = Image().bytes();
  for (std::size_t length = 0; length < whole.size(); ++length)
    EXPECT_EQ(infoPlistOf(whole.substr(0, length)), std::nullopt) << length;
}

}  // namespace
