// Any text as the "magic_bytes" and, after the first line end, the "file_name" of a query's metadata.
#include "companions/content_kind.hpp"

#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  const std::string text(reinterpret_cast<const char*>(bytes), length);
  const std::size_t end = text.find('\n');
  qm::Dictionary metadata{{"magic_bytes", text.substr(0, end)}};
  const qm::ContentKind kind = qm::contentKindFromMetadata(metadata);
  metadata["file_name"] = end == std::string::npos ? "" : text.substr(end + 1);
  // A name can only make a script of what was nothing.
  const qm::ContentKind named = qm::contentKindFromMetadata(metadata);
  if (named != kind && (kind != qm::ContentKind::other || named != qm::ContentKind::script)) std::abort();
  return 0;
}
