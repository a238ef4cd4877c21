// Any bytes as a logging property list.
#include "platform/linux/log_settings.hpp"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  qm::ErrorPtr error;
  const auto list = qm::LogSettingsList::parse(bytes, length, &error);
  if (list.has_value() == (error != nullptr)) std::abort();  // one of the two, never both
  if (list) (void)list->forCategory("category");
  return 0;
}
