// A block of memory to read files into, for one use.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qm {

class ReadBuffer {
 public:
  // Any size, 0 included. Empty with errno set when there is no memory.
  explicit ReadBuffer(std::size_t size);
  ~ReadBuffer();
  ReadBuffer(const ReadBuffer&) = delete;
  ReadBuffer& operator=(const ReadBuffer&) = delete;

  explicit operator bool() const { return bytes_ != nullptr; }
  std::uint8_t* bytes() const { return bytes_; }
  std::size_t size() const { return size_; }

 private:
  std::uint8_t* bytes_;
  std::size_t size_;
};

}  // namespace qm
