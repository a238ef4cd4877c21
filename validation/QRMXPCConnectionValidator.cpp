#include "validation/QRMXPCConnectionValidator.hpp"

#include <cstddef>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "foundation/log.hpp"
#include "foundation/strings.hpp"
#include "platform/file_io.hpp"
#include "platform/main_bundle.hpp"

namespace {

qm::Log& classLog = qm::Log::create(qm::kQMRLogSubsystem, "QRMXPCConnectionValidator");

using ResultPtr = std::shared_ptr<QMRSignatureVerificationResult>;

constexpr std::string_view kAtLeastVersionFormat =
    R"(anchor apple generic and certificate leaf[subject.OU] = "K7Q2M9X4T1" and info [CFBundleShortVersionString] >= "%@")";
constexpr std::string_view kVersionPrefixFormat =
    R"(anchor apple generic and certificate leaf[subject.OU] = "K7Q2M9X4T1" and info [CFBundleShortVersionString] = "%@")";

constexpr qm::OSStatus kTooManyOpenFiles = qm::kSecErrnoBase + 24;  // EMFILE

constexpr std::size_t kPathSize = 4096;  // bytes

// "MAJOR.MINOR." of a version with exactly three components.
std::optional<std::string> versionPrefix(const std::optional<std::string>& version) {
  if (!version) return std::nullopt;
  const std::vector<std::string> components = qm::componentsSeparatedByString(*version, ".");
  if (components.size() != 3) return std::nullopt;
  return components[0] + "." + components[1] + ".";
}

// The value in the placeholder's place.
std::string requirement(std::string_view format, const std::optional<std::string>& value) {
  std::string text(format);
  return text.replace(text.find("%@"), 2, value.value_or("(null)"));
}

}  // namespace

std::array<std::string, 2> QRMXPCConnectionValidator::requirementsForVersion(
    const std::optional<std::string>& version) {
  return {requirement(kAtLeastVersionFormat, version),
          requirement(kVersionPrefixFormat, versionPrefix(version))};
}

bool QRMXPCConnectionValidator::codesignValidForAuditToken(const qm::AuditToken& token,
                                                           std::int32_t pid) const {
  const std::shared_ptr<QMRSignatureVerifier> verifier = signatureVerifier();
  if (verifier == nullptr) {
    QM_LOG_ERROR(classLog, "No signature verifier assigned!");
    return false;
  }
  std::vector<qm::Block<ResultPtr()>> checks;
  for (const std::string& requirement :
       requirementsForVersion(qm::MainBundle::instance().shortVersionString()))
    checks.emplace_back(
        [verifier, token, requirement] { return verifier->verifyAuditToken(token, requirement); });

  ResultPtr result;
  for (const qm::Block<ResultPtr()>& check : checks) {
    result = check();
    if (result->status() == kTooManyOpenFiles) abortDueToFileDescriptorLeak();
    if (result->verdict() != QMRSignatureVerdict::valid) continue;
    QM_LOG_DEBUG(classLog, "pid %d matched codesign requirement %@", pid, result->requirements());
    return true;
  }
  QM_LOG_ERROR(classLog,
               "Process %{public}d (%{public}@) did not match codesign requirements (%{public}@) with status "
               "%{public}d and error %{public}@",
               pid, pathForPid(pid), result->requirements(), result->status(), result->error());
  return false;
}

bool QRMXPCConnectionValidator::codesignValidForConnection(
    const std::shared_ptr<QMRXPCConnection>& connection) const {
  const qm::AuditToken token = connection == nullptr ? qm::AuditToken() : connection->auditToken();
  const std::int32_t pid = connection == nullptr ? 0 : connection->processIdentifier();
  const bool isValid = codesignValidForAuditToken(token, pid);
  if (isValid) return true;
  if (const SignatureVerdictHandler handler = signatureVerdictHandler()) handler(connection, false);
  return false;
}

std::optional<std::string> QRMXPCConnectionValidator::pathForPid(std::int32_t pid) const {
  std::array<char, kPathSize> buffer;
  const int length = qm::processPath(pid, buffer.data(), buffer.size());
  if (length <= 0) {
    QM_LOG_ERROR(classLog, "Error looking up path for pid %{public}d", pid);
    return std::nullopt;
  }
  return qm::lossyUTF8({buffer.data(), static_cast<std::size_t>(length)});
}

void QRMXPCConnectionValidator::abortDueToFileDescriptorLeak() const {
  QM_LOG_ERROR(classLog, "File descriptor leak detected; aborting process");
  std::abort();
}
