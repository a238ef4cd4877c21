// DLog(format, ...): a formatted debug line under the main bundle's identifier as category, for code shared
// by several programs. The format takes the placeholders of the log front; the message as a whole is private.
#pragma once

#include <array>
#include <string>

#include "foundation/log.hpp"

namespace qm::dlog {

qm::Log& log();
void write(const std::string& message);

}  // namespace qm::dlog

template <class... Arguments>
void DLog(const char* format, const Arguments&... arguments) {
  const std::array<qm::log_format::Argument, sizeof...(Arguments)> packed{
      qm::log_format::pack<std::decay_t<const Arguments&>>(arguments)...};
  qm::dlog::write(qm::log_format::render(format, packed.data(), packed.size(), true));
}
