// Reads one named section out of an ELF program file: the way to the Info.plist of a program, our own or a
// peer's. The file may be anything and may change while it is read; nothing it says is believed unchecked.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "foundation/value.hpp"

namespace qm {

// The section that holds a program's Info.plist.
inline constexpr std::string_view kInfoPlistSection = ".info_plist";
// More than any Info.plist needs, in bytes.
inline constexpr std::size_t kMaximumInfoPlistSize = 1024 * 1024;

// The content of the first section of that name. Nothing when the file is not a 64-bit little-endian ELF file
// (System V ABI, chapters 4 and 5), its tables or the section do not lie inside the file, there is no such
// section, or its content is larger than `maximumSize` bytes. Reads by position: the file offset stays. Any
// thread.
std::optional<Data> readElfSection(int descriptor, std::string_view name, std::size_t maximumSize);

}  // namespace qm
