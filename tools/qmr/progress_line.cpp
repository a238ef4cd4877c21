#include "tools/qmr/progress_line.hpp"

#include <cstddef>
#include <cstdlib>
#include <string_view>

#include "foundation/utf8.hpp"
#include "platform/terminal.hpp"

namespace qm::qmr {
namespace {

constexpr std::chrono::milliseconds kRedrawInterval{100};

// The first so many code points of a text without control characters.
std::string firstColumns(const std::string& text, std::size_t columns) {
  std::size_t position = 0;
  while (position < text.size() && columns-- > 0) position += decodeUTF8(text, position).length;
  return text.substr(0, position);
}

}  // namespace

bool isDumbTerminal() {
  const char* const terminal = std::getenv("TERM");
  const std::string_view name = terminal == nullptr ? "" : terminal;
  return name.empty() || name == "dumb";
}

unsigned progressWidth() {
  return isDumbTerminal() ? 0 : terminalWidth(StandardStream::error);
}

bool ProgressLine::isDue() const {
  return width_ != 0 && std::chrono::steady_clock::now() - drawnAt_ >= kRedrawInterval;
}

void ProgressLine::draw(const std::string& text) {
  drawnAt_ = std::chrono::steady_clock::now();
  // Never the last column: a full line would wrap and could not be taken back.
  terminal_ << "\r\x1b[K" << firstColumns(text, width_ - 1) << std::flush;
  shown_ = true;
}

void ProgressLine::clear() {
  if (!shown_) return;
  terminal_ << "\r\x1b[K" << std::flush;
  shown_ = false;
}

}  // namespace qm::qmr
