#include "platform/linux/process_identity.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

namespace qm {
namespace {

constexpr std::size_t kStartTimeField = 22;  // proc(5), counted from 1
constexpr std::size_t kStateField = 3;

// A file of /proc/PID, at most 4096 bytes of it; these files are read in one piece.
std::optional<std::string> readProcessFile(std::int32_t processID, const char* name) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/%s", processID, name);
  const FileDescriptor file(::open(path, O_RDONLY | O_CLOEXEC));
  if (!file) {
    if (errno == ENOENT) errno = ESRCH;
    return std::nullopt;
  }
  std::array<char, 4096> buffer;
  ssize_t length = 0;
  do length = ::read(file.get(), buffer.data(), buffer.size());
  while (length < 0 && errno == EINTR);
  if (length < 0) return std::nullopt;
  if (length == 0) {
    errno = ESRCH;
    return std::nullopt;
  }
  return std::string(buffer.data(), static_cast<std::size_t>(length));
}

// A field of /proc/PID/stat from the third on; the second, the name in parentheses, may contain anything.
std::string_view statField(std::string_view stat, std::size_t number) {
  const std::size_t nameEnd = stat.rfind(')');
  if (nameEnd == std::string_view::npos || nameEnd + 2 > stat.size()) return {};
  stat.remove_prefix(nameEnd + 2);
  for (std::size_t field = kStateField; field < number; ++field) {
    const std::size_t space = stat.find(' ');
    if (space == std::string_view::npos) return {};
    stat.remove_prefix(space + 1);
  }
  return stat.substr(0, stat.find_first_of(" \n"));
}

template <class Number>
std::optional<Number> parseNumber(std::string_view text) {
  Number number = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (failure != std::errc() || end == text.data()) return std::nullopt;
  return number;
}

// "Uid:" and "Gid:" lines hold the real, effective, saved and file system identifier.
bool readIdentifiers(std::string_view status, std::string_view label, std::uint32_t& real,
                     std::uint32_t& effective) {
  const std::size_t line = status.find(label);
  if (line == std::string_view::npos) return false;
  std::string_view rest = status.substr(line + label.size());
  std::array<std::uint32_t*, 2> targets{&real, &effective};
  for (std::uint32_t* target : targets) {
    const std::size_t start = rest.find_first_not_of('\t');
    if (start == std::string_view::npos) return false;
    rest.remove_prefix(start);
    const std::optional<std::uint32_t> number = parseNumber<std::uint32_t>(rest);
    if (!number) return false;
    *target = *number;
    rest.remove_prefix(std::min(rest.find('\t'), rest.size()));
  }
  return true;
}

// The audit user and session; a kernel without auditing has neither.
std::uint32_t readAuditNumber(std::int32_t processID, const char* name) {
  const std::optional<std::string> text = readProcessFile(processID, name);
  const std::optional<std::uint32_t> number = text ? parseNumber<std::uint32_t>(*text) : std::nullopt;
  return number.value_or(UINT32_MAX);
}

bool hasEnded(const FileDescriptor& process) {
  pollfd entry{.fd = process.get(), .events = POLLIN, .revents = 0};
  int ready = 0;
  do ready = ::poll(&entry, 1, 0);
  while (ready < 0 && errno == EINTR);
  return ready > 0;
}

}  // namespace

std::optional<std::uint64_t> processStartTime(std::int32_t processID) {
  if (processID <= 0) {
    errno = ESRCH;
    return std::nullopt;
  }
  const std::optional<std::string> stat = readProcessFile(processID, "stat");
  if (!stat) return std::nullopt;
  const std::string_view state = statField(*stat, kStateField);
  if (state == "Z" || state == "X") {
    errno = ESRCH;
    return std::nullopt;
  }
  const std::optional<std::uint64_t> time = parseNumber<std::uint64_t>(statField(*stat, kStartTimeField));
  if (!time) errno = EINVAL;
  return time;
}

std::optional<AuditToken> auditTokenOfProcess(std::int32_t processID) {
  const std::optional<std::uint64_t> startTime = processStartTime(processID);
  if (!startTime) return std::nullopt;
  const std::optional<std::string> status = readProcessFile(processID, "status");
  if (!status) return std::nullopt;
  AuditToken token;
  auto& words = token.words;
  if (!readIdentifiers(*status, "\nUid:", words[3], words[1]) ||
      !readIdentifiers(*status, "\nGid:", words[4], words[2])) {
    errno = EINVAL;
    return std::nullopt;
  }
  words[0] = readAuditNumber(processID, "loginuid");
  words[5] = static_cast<std::uint32_t>(processID);
  words[6] = readAuditNumber(processID, "sessionid");
  words[7] = auditTokenVersion(*startTime);
  return token;
}

ProcessState stateOfProcess(const AuditToken& token) {
  const std::optional<std::uint64_t> startTime = processStartTime(token.processID());
  if (startTime)
    return auditTokenVersion(*startTime) == token.words[7] ? ProcessState::same : ProcessState::other;
  return errno == ESRCH ? ProcessState::exited : ProcessState::unknown;
}

std::optional<ProcessHandle> ProcessHandle::open(const AuditToken& token, ProcessState& state) {
  state = ProcessState::exited;
  if (token.processID() <= 0) return std::nullopt;
  // The system call itself: the C library has no wrapper before glibc 2.36, and the flag that lets a
  // descriptor stand for one thread is not wanted.
  FileDescriptor descriptor(static_cast<int>(::syscall(SYS_pidfd_open, token.processID(), 0)));
  if (!descriptor) {
    // EINVAL is the id of a thread that is no process. Without the system call the start time has to do.
    if (errno == ESRCH || errno == EINVAL) return std::nullopt;
    if (errno != ENOSYS && errno != EPERM) {
      state = ProcessState::unknown;
      return std::nullopt;
    }
  }
  ProcessHandle handle(token, std::move(descriptor));
  state = handle.state();
  if (state != ProcessState::same) return std::nullopt;
  return handle;
}

ProcessState ProcessHandle::state() const {
  const ProcessState now = stateOfProcess(token_);
  // The start time was read before this question: a process that has not ended yet had the id all the time.
  if (now == ProcessState::same && descriptor_ && hasEnded(descriptor_)) return ProcessState::exited;
  return now;
}

}  // namespace qm
