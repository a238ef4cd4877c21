// Replacing the content of a file as a whole: whoever opens it sees the old content or the new one, also
// after a power failure, and what somebody else wrote in the meantime is not lost.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qm {

enum class FileReplacement : std::uint8_t {
  done,              // and on the disk
  changedMeanwhile,  // the file is not what was expected: left as it is
  failed,  // errno says why; the file is left as it is, or holds the new content and it is not known
           // whether a power failure would take it back
};

// `expected` is the content the new one was made from; nothing when there was no file. A new file gets the
// mode 0644, one that is replaced keeps its mode and owner (it fails when they cannot be kept). A symbolic
// link stays, its target is replaced; one that leads nowhere fails. The file's folder must be writable.
FileReplacement replaceFile(const std::string& path, const std::optional<std::string>& expected,
                            std::string_view content);

}  // namespace qm
