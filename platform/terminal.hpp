// The terminal a command line may be talking to.
#pragma once

#include <cstdint>

namespace qm {

enum class StandardStream : std::uint8_t { output, error };

bool isTerminal(StandardStream stream);
// Columns of the terminal; 0 when the stream is none, or its width is not known.
unsigned terminalWidth(StandardStream stream);

}  // namespace qm
