// Property lists from outside: extended attributes of files and the Info.plist of other programs.
#include "platform/property_list.hpp"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  qm::ErrorPtr error;
  const std::optional<qm::Value> value = qm::parsePropertyList(bytes, length, &error);
  // Either a value or the one error.
  if (value.has_value() != (error == nullptr) || (error != nullptr && error->code() != 3840)) std::abort();
  if (value) static_cast<void>(value->description());
  return 0;
}
