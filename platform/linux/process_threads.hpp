// Starting threads; those that serve the whole process (workers, event loop) until it ends, and the forks
// they do not survive: a child made by fork() has none of them; until it executes a program it must not use
// what needs them, nor touch what it shares with its parent.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <thread>

namespace qm {

// Signals are left to the main thread, except for those a thread causes itself. Not joinable when there is no
// thread to be had now (limits, memory). The name holds 15 characters and lives for ever.
[[nodiscard]] std::thread startThread(const char* name, std::function<void()> body);
// The same with a thread that is never joined. False when there is none to be had.
[[nodiscard]] bool startProcessThread(const char* name, std::function<void()> body);

// True for a thread of this process that runs or waits for a processor, or cannot be looked at since no
// descriptor is free; false when it sleeps, in a lock or in the kernel, or has ended.
bool isRunnable(::pid_t thread);

// The number of the sleep in which such a thread is: the same as before when it has slept all the time since.
// Nothing when it runs, waits for a processor or cannot be looked at.
std::optional<std::uint64_t> currentSleep(::pid_t thread);

// At least one. Fewer than there are where the process is confined to some (cpuset, CPUAffinity= of its
// unit).
std::size_t usableProcessors();

// True in a child that was forked after the first startProcessThread().
bool isForkedChild();

// Ends the process with a clear message if this is such a child: what it asks for would never happen.
void requireNoForkedChild(const char* action);

// Ends the process (abort) with message and detail as a line on standard error.
[[noreturn]] void endProcess(const char* message, const char* detail = "");

}  // namespace qm
