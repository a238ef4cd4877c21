#include "platform/read_buffer.hpp"

#include <sys/mman.h>

#include <cstdlib>

namespace qm {
namespace {

// Above this size a buffer is a mapping of its own, which goes back to the system at once; the C library
// keeps freed blocks, and below it that pays.
constexpr std::size_t kMappingThreshold = 1024 * 1024;

std::uint8_t* map(std::size_t size) {
  void* const mapping = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANON, -1, 0);
  return mapping == MAP_FAILED ? nullptr : static_cast<std::uint8_t*>(mapping);
}

std::uint8_t* allocate(std::size_t size) {
  if (size > kMappingThreshold) return map(size);
  // A block of size 0 is a block, too.
  return static_cast<std::uint8_t*>(std::malloc(size == 0 ? 1 : size));
}

}  // namespace

ReadBuffer::ReadBuffer(std::size_t size) : bytes_(allocate(size)), size_(size) {}

ReadBuffer::~ReadBuffer() {
  if (size_ <= kMappingThreshold)
    std::free(bytes_);
  else if (bytes_ != nullptr)
    ::munmap(bytes_, size_);
}

}  // namespace qm
