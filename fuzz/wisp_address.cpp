// Any text as the URL of a call of the Wisp core daemon, and as a path on its way through a file URL.
#include "companions/wisp_address.hpp"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  const std::string text(reinterpret_cast<const char*>(bytes), length);
  if (const std::optional<qm::URL> url = qm::URL::create(text)) {
    const std::optional<qm::WispAddress> address = qm::wispAddress(*url);
    const auto* file = address ? std::get_if<qm::FilePath>(&*address) : nullptr;
    if (file != nullptr && (!file->path.starts_with('/') || file->path.find('\0') != std::string::npos))
      std::abort();
  }
  if (!text.starts_with('/') || text.ends_with('/') || text.find('\0') != std::string::npos) return 0;
  if (qm::wispAddress(qm::URL::fileURLWithPath(text)) != qm::WispAddress(qm::FilePath{text})) std::abort();
  return 0;
}
