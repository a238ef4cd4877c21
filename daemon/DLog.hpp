// DLog(format, ...): a formatted debug line under the main bundle's identifier as category, for code shared
// by several programs. The format takes the placeholders of the log front; the message as a whole is private.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <type_traits>

#include "foundation/log.hpp"

namespace qm::dlog {

Log& log();
void write(const std::string& message);

// A literal, checked against the types of its arguments when it is compiled.
template <class... Arguments>
class Format {
 public:
  consteval Format(const char* text) : text_(text) {
    if (!log_format::Types<std::decay_t<const Arguments&>...>::matches(text))
      throw "the log format does not fit its arguments";  // no constant: the compiler stops here
  }
  const char* text() const { return text_; }

 private:
  const char* text_;
};

}  // namespace qm::dlog

// Any thread. With debug lines off, nothing is formatted.
template <class... Arguments>
void DLog(qm::dlog::Format<std::type_identity_t<Arguments>...> format, const Arguments&... arguments) {
  if (!qm::dlog::log().isEnabled(qm::LogLevel::debug)) return;
  const std::array<qm::log_format::Argument, sizeof...(Arguments)> packed{
      qm::log_format::pack<std::decay_t<const Arguments&>>(arguments)...};
  qm::dlog::write(
      qm::log_format::render(format.text(), packed.data(), packed.size(), qm::log_format::PrivateParts::shown)
          .text);
}
