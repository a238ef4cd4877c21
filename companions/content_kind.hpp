// What a file's content is by its first bytes and, for text without any mark, by its name: decides whether
// the Skyvault agent wants to examine it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "foundation/value.hpp"

namespace qm {

enum class ContentKind : std::uint8_t { other, program, script, archive, document };

// "other", "program", "script", "archive", "document".
const char* name(ContentKind kind);

// The first bytes of a file, 16 are enough; fewer are taken as they are.
ContentKind contentKindOfMagic(const void* bytes, std::size_t length);
// By the extension, of a text without a mark; case does not count.
ContentKind contentKindOfTextNamed(std::string_view fileName);

// From "magic_bytes" (Base64) and, where they are text, "file_name" of a query's metadata; values of a wrong
// type count as missing. The name alone decides nothing, it is the asker's to choose: in particular no name
// makes the agent take the files of its own store for samples, whose locks the system drops when the process
// closes another descriptor of them (fcntl(2)).
ContentKind contentKindFromMetadata(const Dictionary& metadata);

}  // namespace qm
