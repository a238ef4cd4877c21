// Where this installation's files lie. Product paths are absolute ("/Library/Quillmarsh/..."); on a platform
// where several installations can stand side by side they are opened below the system root of the running
// program.
#pragma once

#include <string>
#include <string_view>

namespace qm {

// The path in the file system for an absolute product path. On macOS the path itself; on Linux below R when
// the program lies at R/Library/Quillmarsh[-namespace]/qxmac/bin/NAME, the path itself when it lies anywhere
// else.
std::string hostPath(std::string_view productPath);

}  // namespace qm
