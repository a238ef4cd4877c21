// Which process an audit token means. A process id alone is reused; together with the process's start time it
// is not.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/audit_token.hpp"
#include "platform/file_descriptor.hpp"

namespace qm {

// When the process started, in clock ticks since the system's start (field 22 of /proc/PID/stat, proc(5)).
// Nothing, with errno set, when there is no such process (ESRCH, also for one that has exited and was not yet
// waited for) or it cannot be read.
std::optional<std::uint64_t> processStartTime(std::int32_t processID);

// The word of an audit token that tells a reused process id apart.
constexpr std::uint32_t auditTokenVersion(std::uint64_t startTime) {
  return static_cast<std::uint32_t>(startTime);
}

// The token of a running process as it is now, its users and groups from /proc/PID/status. Nothing, with
// errno set, when there is no such process. For a peer of a socket the transport takes the users from the
// socket's credentials.
std::optional<AuditToken> auditTokenOfProcess(std::int32_t processID);

enum class ProcessState : std::uint8_t {
  same,     // the process of the token runs
  exited,   // no process has that id, or it only waits to be collected
  other,    // the id belongs to another process by now
  unknown,  // it could not be found out; errno says why
};
// Whether the token's process still runs.
ProcessState stateOfProcess(const AuditToken& token);

// A handle on the process of a token. While it says `same`, everything read under the process's id since
// open() was about that process.
class ProcessHandle {
 public:
  // Stores the state at the time of the call; a handle is only returned for `same`.
  static std::optional<ProcessHandle> open(const AuditToken& token, ProcessState& state);

  ProcessState state() const;

 private:
  ProcessHandle(const AuditToken& token, FileDescriptor descriptor)
      : token_(token), descriptor_(std::move(descriptor)) {}

  AuditToken token_;
  FileDescriptor descriptor_;  // of pidfd_open(2); empty on a kernel without it
};

}  // namespace qm
