// One line at the bottom of a terminal that says how far the work is. Made for one thread at a time.
#pragma once

#include <chrono>
#include <ostream>
#include <string>

namespace qm::qmr {

// The terminal that the environment names can do no more than print.
bool isDumbTerminal();
// Columns for a line of progress on standard error; 0 when that is no terminal that could take it back.
unsigned progressWidth();

class ProgressLine {
 public:
  // Does nothing at all when the width is 0 (no terminal).
  ProgressLine(std::ostream& terminal, unsigned width) : terminal_(terminal), width_(width) {}
  ~ProgressLine() { clear(); }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  // Redrawn at most ten times a second: makeText is called only then, for a text without control characters.
  template <class MakeText>
  void show(const MakeText& makeText) {
    if (isDue()) draw(makeText());
  }
  // Takes it off the terminal, for rows to be written; the next show() draws it again.
  void clear();

 private:
  bool isDue() const;
  void draw(const std::string& text);

  std::ostream& terminal_;
  const unsigned width_;
  bool shown_ = false;
  std::chrono::steady_clock::time_point drawnAt_;
};

}  // namespace qm::qmr
