// Any bytes as a code requirement.
#include "platform/linux/requirement.hpp"

#include <cstdlib>
#include <string>

namespace {

qm::CodeFacts signedProgram() {
  qm::CertificateFacts leaf;
  leaf.subject["OU"] = {"K7Q2M9X4T1", "second"};
  return {
      .chain = {leaf, {.subject = {{"CN", {"root"}}}}},
      .anchored = true,
      .info = {{"CFBundleIdentifier", "com.quillmarsh.tool"}, {"CFBundleShortVersionString", "5.12.345"}}};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  const std::string text(reinterpret_cast<const char*>(bytes), length);
  qm::SecRequirementPtr requirement;
  std::string reason;
  const qm::OSStatus status = qm::SecRequirement::parse(text, requirement, &reason);
  if ((status == qm::kSecSuccess) != (requirement != nullptr) || (requirement == nullptr) == reason.empty())
    std::abort();
  if (requirement == nullptr) return 0;
  const bool isSatisfied = requirement->isSatisfiedBy(signedProgram());
  // The opposite, where it can be written: not behind a closing semicolon or a comment, nor one level too
  // deep.
  qm::SecRequirementPtr opposite;
  if (qm::SecRequirement::parse("!(" + text + "\n)", opposite) == qm::kSecSuccess &&
      opposite->isSatisfiedBy(signedProgram()) == isSatisfied)
    std::abort();
  return 0;
}
