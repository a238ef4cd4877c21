#include "platform/SVKSkyvaultServiceClientProtocol.hpp"

std::string SVKSkyvaultCategory::description() const {
  return name + (value ? ": yes" : ": no");
}

std::string SVKSkyvaultResponse::description() const {
  return "<SVKSkyvaultResponse: verdict " + safetyVerdict.value + ", infection name " +
         safetyVerdict.infectionName.value_or("(null)") + ", options " + std::to_string(options) + ", ttl " +
         std::to_string(ttl) + ", prevalence " + std::to_string(prevalence) + ">";
}
