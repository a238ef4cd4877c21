// Text from outside, made fit for a line of output.
#pragma once

#include <string>
#include <string_view>

namespace qm::qmr {

// The text on one line, with nothing in it that a terminal acts on or that changes how the rest is read:
// control characters, line and paragraph separators, bidirectional and invisible format characters become \n,
// \t, \e, \xNN or \u{N}, bytes that are not UTF-8 \xNN, a backslash \\. So every text has its own display,
// and two never look like one row more.
std::string displayText(std::string_view text);

}  // namespace qm::qmr
