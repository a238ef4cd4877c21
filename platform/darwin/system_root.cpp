#include "platform/system_root.hpp"

namespace qm {

std::string hostPath(std::string_view productPath) {
  return std::string(productPath);
}

}  // namespace qm
