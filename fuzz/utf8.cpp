// Any bytes as text: what is made of them is well-formed, and well-formed text stays as it is.
#include <cstdlib>
#include <string_view>

#include "foundation/log.hpp"
#include "foundation/strings.hpp"
#include "foundation/value.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), length);
  const std::string lossy = qm::lossyUTF8(text);
  if (!qm::isValidUTF8(lossy) || qm::isValidUTF8(text) != (lossy == text)) std::abort();
  const std::string trimmed = qm::trimWhitespaceAndNewlines(text);
  if (qm::trimWhitespaceAndNewlines(trimmed) != trimmed) std::abort();
  const std::string path = qm::stringByAppendingPathComponent(text, "component.ext");
  if (qm::lastPathComponent(path) != "component.ext" || qm::pathExtension(path) != "ext") std::abort();
  (void)qm::stringByDeletingLastPathComponent(text);
  (void)qm::stringByDeletingPathExtension(text);
  (void)qm::pathComponents(text);
  (void)qm::integerValue(text);
  (void)qm::description(qm::Dictionary{{std::string(text), qm::Array{text}}});
  return 0;
}
