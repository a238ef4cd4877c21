// Any text as a URL or host name on its way to the verdict store.
#include "companions/url_key.hpp"

#include <cstdint>
#include <cstdlib>

#include "foundation/strings.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  const std::string text(reinterpret_cast<const char*>(bytes), length);
  const std::vector<std::string> keys = qm::urlLookupKeys(text);
  const std::optional<std::string> key = qm::urlKey(text);
  if (!key) return 0;
  // What is stored is text, is found by what it was stored for, and is its own key.
  if (!qm::isValidUTF8(*key) || keys.empty() || keys.front() != *key || qm::urlKey(*key) != key) std::abort();
  return 0;
}
