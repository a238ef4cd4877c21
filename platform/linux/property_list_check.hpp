// What must hold before bytes from outside go to the property-list library: it trusts the structure of what
// it reads further than hostile input allows. Bounds of this reader: a list is at most 16 MiB long and 128
// levels deep. With every shared object counted as often as it is referred to, a binary list has at most
// 262144 objects and as text, indentation included, about 32 times its own length, but always 64 KiB and
// never more than 64 MiB.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace qm {

inline constexpr std::size_t kMaximumPropertyListSize = 16 * 1024 * 1024;
inline constexpr int kMaximumPropertyListDepth = 128;

// Header, trailer, offset table and every object that the top object leads to lie where they should: counts
// and contents inside the file, references to objects that exist, no cycles, ASCII strings of ASCII, keys of
// strings. Source: the layout of CFBinaryPList in the public Core Foundation sources.
[[nodiscard]] bool isSoundBinaryPropertyList(const std::uint8_t* bytes, std::size_t length);

// The text is UTF-8 without NULs, and its arrays and dictionaries are not nested too deep.
[[nodiscard]] bool isSoundXMLPropertyList(std::string_view text);

}  // namespace qm
