#include "platform/remote_interface.hpp"

#include <utility>

#include "foundation/internal_inconsistency.hpp"

namespace qm {

RemoteInterface::RemoteInterface(std::string protocolName, std::vector<RemoteMethodSignature> methods)
    : protocolName_(std::move(protocolName)) {
  for (RemoteMethodSignature& method : methods) {
    std::string selector = method.selector;
    methods_.emplace(std::move(selector), std::move(method));
  }
}

const RemoteMethodSignature* RemoteInterface::method(std::string_view selector) const {
  const auto found = methods_.find(selector);
  return found == methods_.end() ? nullptr : &found->second;
}

void RemoteInterface::setClasses(CodedClasses classes, std::string_view selector, std::size_t argumentIndex,
                                 bool ofReply) {
  const auto found = methods_.find(selector);
  if (found == methods_.end())
    throw InternalInconsistencyException("setClasses: no method " + std::string(selector) + " in " +
                                         protocolName_);
  RemoteMethodSignature& method = found->second;
  std::vector<RemoteParameter>* parameters =
      ofReply ? (method.reply ? &*method.reply : nullptr) : &method.arguments;
  if (parameters == nullptr || argumentIndex >= parameters->size() ||
      (*parameters)[argumentIndex].type != RemoteType::object)
    throw InternalInconsistencyException("setClasses: no object at this place of " + method.selector);
  RemoteParameter& parameter = (*parameters)[argumentIndex];
  parameter.classes = std::move(classes);
  parameter.hasOwnContents = true;
}

const RemoteExport::Handler* RemoteExport::handler(std::string_view selector) const {
  const auto found = handlers_.find(selector);
  return found == handlers_.end() ? nullptr : &found->second;
}

}  // namespace qm
