// A mistake of the program itself, not of its input: a method reached that a subclass had to provide, a
// property used before it was set. Nobody catches it.
#pragma once

#include <stdexcept>

namespace qm {

class InternalInconsistencyException : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

}  // namespace qm
