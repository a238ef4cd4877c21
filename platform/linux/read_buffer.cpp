#include "platform/read_buffer.hpp"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>

namespace qm {
namespace {

// Above this size a buffer is a mapping of its own, made of large pages where the kernel has them. The C
// library would keep freed blocks of such sizes, one for each thread that ever read a file. Below it
// keeping them pays: faulting in new small pages costs half as much as hashing what is read into them.
constexpr std::size_t kMappingThreshold = 1024 * 1024;
constexpr std::size_t kLargePage = 2 * 1024 * 1024;

std::size_t mappingSize(std::size_t size) {
  return (size + kLargePage - 1) / kLargePage * kLargePage;
}

// A mapping that begins where a large page can: one page is asked for in addition, and what stands out is
// given back.
std::uint8_t* map(std::size_t size) {
  void* const mapping =
      ::mmap(nullptr, size + kLargePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapping == MAP_FAILED) return nullptr;
  auto* const start = static_cast<std::uint8_t*>(mapping);
  const std::size_t ahead = (kLargePage - reinterpret_cast<std::uintptr_t>(start) % kLargePage) % kLargePage;
  if (ahead > 0) ::munmap(start, ahead);
  ::munmap(start + ahead + size, kLargePage - ahead);
  ::madvise(start + ahead, size, MADV_HUGEPAGE);
  return start + ahead;
}

std::uint8_t* allocate(std::size_t size) {
  if (size > kMappingThreshold) return map(mappingSize(size));
  // A block of size 0 is a block, too.
  return static_cast<std::uint8_t*>(std::malloc(size == 0 ? 1 : size));
}

}  // namespace

ReadBuffer::ReadBuffer(std::size_t size) : bytes_(allocate(size)), size_(size) {}

ReadBuffer::~ReadBuffer() {
  if (size_ <= kMappingThreshold)
    std::free(bytes_);
  else if (bytes_ != nullptr)
    ::munmap(bytes_, mappingSize(size_));
}

}  // namespace qm
