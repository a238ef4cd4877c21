#include "platform/read_buffer.hpp"

#include <cstdlib>

namespace qm {

// A block of size 0 is a block, too.
ReadBuffer::ReadBuffer(std::size_t size)
    : bytes_(static_cast<std::uint8_t*>(std::malloc(size == 0 ? 1 : size))), size_(size) {}

ReadBuffer::~ReadBuffer() {
  std::free(bytes_);
}

}  // namespace qm
