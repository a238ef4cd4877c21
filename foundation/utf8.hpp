// Decoding of UTF-8 one scalar at a time, for the string and description functions of this floor.
#pragma once

#include <cstddef>
#include <string_view>

namespace qm {

struct DecodedScalar {
  char32_t scalar = 0;  // U+FFFD when ill-formed
  std::size_t length =
      1;  // bytes taken; of an ill-formed sequence its longest part that could have begun a scalar
  bool wellFormed = true;
};

// The position must be inside the text.
DecodedScalar decodeUTF8(std::string_view text, std::size_t position);

}  // namespace qm
