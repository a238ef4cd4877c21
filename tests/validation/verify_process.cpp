// Checks another process as the daemon does, from the installation it is staged in; its anchors and its own
// version are those that count.
//
//   verify_process PID VERSION REQUIREMENT    prints verdict, status and error, a line each
//   verify_process PID VERSION                prints whether the validator admits it, and asks again with no
//                                             descriptor left
//
// VERSION is the last word of the process's audit token, "now" the one that it has.
#include <fcntl.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "foundation/log.hpp"
#include "platform/linux/process_identity.hpp"
#include "validation/QMRSignatureVerifier.hpp"
#include "validation/QRMXPCConnectionValidator.hpp"

namespace {

struct PrintingSink final : qm::LogSink {
  void write(const qm::LogEntry& entry) override {
    std::puts(std::string(entry.message).c_str());
    std::fflush(stdout);
  }
};

qm::AuditToken tokenFrom(const char* processID, const char* version) {
  const int pid = std::atoi(processID);
  qm::AuditToken token = qm::auditTokenOfProcess(pid).value_or(qm::AuditToken());
  token.words[5] = static_cast<std::uint32_t>(pid);
  if (std::strcmp(version, "now") != 0)
    token.words[7] = static_cast<std::uint32_t>(std::strtoul(version, nullptr, 10));
  return token;
}

int verify(const qm::AuditToken& token, const char* requirement) {
  const auto result = QMRSignatureVerifier().verifyAuditToken(token, requirement);
  const qm::ErrorPtr error = result->error();
  std::printf("%d\n%d\n%s\n", static_cast<int>(result->verdict()), result->status(),
              error == nullptr ? "nil" : error->description().c_str());
  return 0;
}

int validate(const qm::AuditToken& token) {
  QRMXPCConnectionValidator validator;
  validator.setSignatureVerifier(std::make_shared<QMRSignatureVerifier>());
  std::puts(validator.codesignValidForAuditToken(token, token.processID()) ? "yes" : "no");
  return 0;
}

void exhaustDescriptors() {
  const rlimit few{.rlim_cur = 64, .rlim_max = 64};
  ::setrlimit(RLIMIT_NOFILE, &few);
  while (::open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0) {
  }
}

}  // namespace

int main(int argumentCount, char** arguments) {
  if (argumentCount < 3) return 2;
  const qm::AuditToken token = tokenFrom(arguments[1], arguments[2]);
  if (argumentCount == 4) return verify(token, arguments[3]);
  qm::setLogSink(std::make_shared<PrintingSink>());
  validate(token);
  exhaustDescriptors();
  return validate(token);
}
