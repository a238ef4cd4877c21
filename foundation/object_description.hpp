// What `%@` prints for an object whose class has no description of its own.
#pragma once

#include <cstdio>
#include <string>

namespace qm {

// <CLASS: 0xADDRESS>
inline std::string objectDescription(const std::string& className, const void* object) {
  char address[32];
  std::snprintf(address, sizeof address, "%p", object);
  return "<" + className + ": " + address + ">";
}

}  // namespace qm
