// Path and string operations with the behaviour of the platform's string class: none of them looks at the
// file system or resolves ".", ".." or "~". Texts are UTF-8.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qm {

std::string lastPathComponent(std::string_view path);
// Without the dot; empty when there is none (a name of dots only, a leading dot, an extension with a space, a
// slash or a bidirectional control).
std::string pathExtension(std::string_view path);
std::string stringByDeletingPathExtension(std::string_view path);
std::string stringByDeletingLastPathComponent(std::string_view path);
// Nothing when the path is empty or only slashes, or the extension contains a slash or a space or ends in a
// dot.
std::optional<std::string> stringByAppendingPathExtension(std::string_view path, std::string_view extension);
std::string stringByAppendingPathComponent(std::string_view path, std::string_view component);
// An absolute path's first component is "/", and so is the last one of a path that ends in a slash.
std::vector<std::string> pathComponents(std::string_view path);

// An empty text gives one empty component; an empty separator gives the whole text.
std::vector<std::string> componentsSeparatedByString(std::string_view text, std::string_view separator);
std::string componentsJoinedByString(const std::vector<std::string>& components, std::string_view separator);

// Removes the characters of the Unicode white-space-and-newline set at both ends.
std::string trimWhitespaceAndNewlines(std::string_view text);

// Leading spaces, an optional sign, ASCII digits up to the first other character; 0 without digits, clamped
// to the type's range.
std::int64_t integerValue(std::string_view text);

// ASCII letters only.
std::string asciiLowercase(std::string_view text);

// Well-formed UTF-8 (no surrogates, no overlong forms, at most U+10FFFF).
bool isValidUTF8(std::string_view text);
// The text with every ill-formed sequence replaced by U+FFFD.
std::string lossyUTF8(std::string_view text);

// Two lower-case digits a byte.
std::string hexadecimal(const std::uint8_t* bytes, std::size_t length);

// Standard alphabet, padded, no line breaks (RFC 4648, section 4).
std::string base64(const std::uint8_t* bytes, std::size_t length);

}  // namespace qm
