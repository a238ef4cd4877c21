#include "platform/code_signing.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <optional>
#include <string>
#include <utility>

#include "platform/common/disposal_lanes.hpp"
#include "platform/file_descriptor.hpp"
#include "platform/linux/code_signature.hpp"
#include "platform/linux/process_identity.hpp"
#include "platform/linux/requirement.hpp"
#include "platform/linux/supervised_work.hpp"

namespace qm {
namespace {

// For each of the calls that touch the peer's file system.
constexpr std::chrono::seconds kDeadline(10);

}  // namespace

class SecCode {
 public:
  explicit SecCode(std::uint32_t userID) : userID_(userID) {}
  SecCode(const SecCode&) = delete;
  SecCode& operator=(const SecCode&) = delete;
  ~SecCode();

  FileDescriptor& program() { return program_; }
  int program() const { return program_.get(); }
  std::uint32_t userID() const { return userID_; }

 private:
  FileDescriptor program_;
  std::uint32_t userID_;
};

// A file system that does not answer to the closing either counts as stuck work of its user, who is refused
// soon. Nobody waits for it here, whatever becomes of it.
SecCode::~SecCode() {
  if (!program_) return;
  const auto program = std::make_shared<FileDescriptor>(std::move(program_));
  const auto close = [program, userID = userID_] {
    runSupervised(userID, kDeadline, [program](const std::atomic<bool>&) {
      program->reset();
      return kSecSuccess;
    });
  };
  runOnDisposalLane(close, userID_);
}

namespace {

OSStatus errnoStatus() {
  return kSecErrnoBase + errno;
}

bool hasFreeDescriptor() {
  return static_cast<bool>(FileDescriptor(::open("/", O_PATH | O_CLOEXEC)));
}

OSStatus statusOfState(ProcessState state) {
  switch (state) {
    case ProcessState::same:
      return kSecSuccess;
    case ProcessState::exited:
      return kSecErrnoBase + ESRCH;
    case ProcessState::other:
      return kSecCSNoSuchCode;
    case ProcessState::unknown:
      return errnoStatus();
  }
  return kSecCSInternalError;
}

// The path in the link names the file that is open. It does not once the file was replaced or deleted.
OSStatus checkPathOfProgram(const char* link, int program) {
  char path[PATH_MAX + 1];
  const ssize_t length = ::readlink(link, path, PATH_MAX);
  if (length < 0) return peerErrnoStatus();
  path[length] = '\0';
  struct stat named {};
  struct stat opened {};
  if (::fstat(program, &opened) != 0) return peerErrnoStatus();
  if (::stat(path, &named) != 0) return peerErrnoStatus();
  const bool isSame = named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
  return isSame && S_ISREG(opened.st_mode) ? kSecSuccess : kSecErrnoBase + ENOENT;
}

OSStatus openProgram(std::int32_t processID, FileDescriptor& program) {
  char link[64];
  std::snprintf(link, sizeof link, "/proc/%d/exe", processID);
  program.reset(::open(link, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (program) return checkPathOfProgram(link, program.get());
  const bool isShortage = errno == EMFILE && !hasFreeDescriptor();
  return isShortage ? kSecErrnoBase + EMFILE : peerErrnoStatus();
}

OSStatus openGuest(const AuditToken& token, FileDescriptor& program) {
  ProcessState state = ProcessState::unknown;
  const std::optional<ProcessHandle> process = ProcessHandle::open(token, state);
  if (!process) return statusOfState(state);
  const OSStatus status = openProgram(token.processID(), program);
  // What was opened under the process's id counts only if the process was there all the time; and that it was
  // not is also what an error means then.
  const OSStatus after = statusOfState(process->state());
  const OSStatus result = after == kSecSuccess ? status : after;
  if (result != kSecSuccess) program.reset();  // here, since it may hang
  return result;
}

}  // namespace

OSStatus copyGuestWithAuditToken(const AuditToken& token, SecCodePtr& code) {
  code = nullptr;
  const auto guest = std::make_shared<SecCode>(token.effectiveUserID());
  const OSStatus status =
      runSupervised(token.effectiveUserID(), kDeadline,
                    [token, guest](const std::atomic<bool>&) { return openGuest(token, guest->program()); });
  if (status == kSecSuccess) code = guest;
  return status;
}

OSStatus createRequirementWithString(const std::string& text, SecRequirementPtr& requirement) {
  return SecRequirement::parse(text, requirement);
}

OSStatus checkValidityWithErrors(const SecCodePtr& code, const SecRequirementPtr& requirement,
                                 ErrorPtr* error) {
  OSStatus status = kSecCSObjectRequired;
  if (code != nullptr) {
    status =
        runSupervised(code->userID(), kDeadline, [code, requirement](const std::atomic<bool>& cancelled) {
          CodeFacts facts;
          const OSStatus verified =
              verifyAppendedSignature(code->program(), installedAnchorsFolder(), cancelled, facts);
          if (verified != kSecSuccess || requirement == nullptr) return verified;
          return requirement->isSatisfiedBy(facts) ? kSecSuccess : kSecCSReqFailed;
        });
  }
  if (status != kSecSuccess) setError(error, makeError(kOSStatusErrorDomain, status));
  return status;
}

}  // namespace qm
