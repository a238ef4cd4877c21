#include "platform/linux/elf_section.hpp"

#include <elf.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/file_io.hpp"

namespace qm {
namespace {

// The headers are read as they lie in the file.
static_assert(std::endian::native == std::endian::little);

constexpr std::uint64_t kMaximumSections = 65536;
constexpr std::uint64_t kMaximumNameTable = 1024 * 1024;

// The bytes of a file, by checked ranges.
class BoundedFile {
 public:
  static std::optional<BoundedFile> create(int descriptor) {
    FileStatus status;
    if (!statDescriptor(descriptor, status) || status.size < 0) return std::nullopt;
    return BoundedFile(descriptor, static_cast<std::uint64_t>(status.size));
  }

  // Fills the buffer from the offset; false when the range does not lie in the file or cannot be read.
  [[nodiscard]] bool read(std::uint64_t offset, void* buffer, std::size_t length) const {
    if (length > size_ || offset > size_ - length) return false;
    auto* bytes = static_cast<std::uint8_t*>(buffer);
    while (length > 0) {
      const std::int64_t count = readAt(descriptor_, bytes, length, static_cast<std::int64_t>(offset));
      if (count <= 0) return false;
      bytes += count;
      offset += static_cast<std::uint64_t>(count);
      length -= static_cast<std::size_t>(count);
    }
    return true;
  }

  [[nodiscard]] bool contains(std::uint64_t offset, std::uint64_t length) const {
    return length <= size_ && offset <= size_ - length;
  }

 private:
  BoundedFile(int descriptor, std::uint64_t size) : descriptor_(descriptor), size_(size) {}

  int descriptor_;
  std::uint64_t size_;
};

bool readHeader(const BoundedFile& file, Elf64_Ehdr& header) {
  return file.read(0, &header, sizeof header) && std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
         header.e_ident[EI_CLASS] == ELFCLASS64 && header.e_ident[EI_DATA] == ELFDATA2LSB &&
         header.e_shoff != 0 && header.e_shentsize == sizeof(Elf64_Shdr);
}

// Where the sections are. Numbers that do not fit the header's 16 bits stand in the first section's entry.
struct SectionTable {
  std::vector<Elf64_Shdr> sections;
  std::uint32_t nameTableIndex = 0;
};

std::optional<SectionTable> readSectionTable(const BoundedFile& file) {
  Elf64_Ehdr header{};
  Elf64_Shdr first{};
  if (!readHeader(file, header) || !file.read(header.e_shoff, &first, sizeof first)) return std::nullopt;
  const std::uint64_t count = header.e_shnum != 0 ? header.e_shnum : first.sh_size;
  if (count == 0 || count > kMaximumSections || !file.contains(header.e_shoff, count * sizeof(Elf64_Shdr)))
    return std::nullopt;
  SectionTable table;
  table.nameTableIndex = header.e_shstrndx != SHN_XINDEX ? header.e_shstrndx : first.sh_link;
  if (table.nameTableIndex >= count) return std::nullopt;
  table.sections.resize(static_cast<std::size_t>(count));
  if (!file.read(header.e_shoff, table.sections.data(), table.sections.size() * sizeof(Elf64_Shdr)))
    return std::nullopt;
  return table;
}

// Nothing for a section without content in the file, or with more than the limit.
std::optional<std::vector<std::uint8_t>> readContent(const BoundedFile& file, const Elf64_Shdr& section,
                                                     std::uint64_t maximumSize) {
  if (section.sh_type == SHT_NOBITS || section.sh_size > maximumSize ||
      !file.contains(section.sh_offset, section.sh_size))
    return std::nullopt;
  std::vector<std::uint8_t> content(static_cast<std::size_t>(section.sh_size));
  if (!file.read(section.sh_offset, content.data(), content.size())) return std::nullopt;
  return content;
}

// The NUL-terminated name at the offset equals the wanted one.
bool hasName(const std::vector<std::uint8_t>& names, std::uint32_t offset, std::string_view wanted) {
  if (offset >= names.size() || names.size() - offset <= wanted.size()) return false;
  return std::memcmp(names.data() + offset, wanted.data(), wanted.size()) == 0 &&
         names[offset + wanted.size()] == 0;
}

}  // namespace

std::optional<Data> readElfSection(int descriptor, std::string_view name, std::size_t maximumSize) {
  const std::optional<BoundedFile> file = BoundedFile::create(descriptor);
  if (!file) return std::nullopt;
  const std::optional<SectionTable> table = readSectionTable(*file);
  if (!table) return std::nullopt;
  const std::optional<std::vector<std::uint8_t>> names =
      readContent(*file, table->sections[table->nameTableIndex], kMaximumNameTable);
  if (!names) return std::nullopt;
  for (const Elf64_Shdr& section : table->sections) {
    if (!hasName(*names, section.sh_name, name)) continue;
    std::optional<std::vector<std::uint8_t>> content = readContent(*file, section, maximumSize);
    return content ? std::optional<Data>(Data(std::move(*content))) : std::nullopt;
  }
  return std::nullopt;
}

}  // namespace qm
