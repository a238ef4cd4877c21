// The input as the content of an open file.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

#include "platform/file_descriptor.hpp"

inline qm::FileDescriptor inputFile(const std::uint8_t* bytes, std::size_t length) {
  qm::FileDescriptor file(::memfd_create("input", MFD_CLOEXEC));
  if (::write(file.get(), bytes, length) != static_cast<ssize_t>(length)) std::abort();
  return file;
}
