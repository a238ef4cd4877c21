// The daemon's wire (docs/wire.md) on a plain socket, for programs that want to see each frame themselves.
// They throw std::runtime_error when the socket or the service fails.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "platform/file_descriptor.hpp"
#include "platform/xpc.hpp"

namespace qm::bench {

[[noreturn]] void failWithErrno(const std::string& what);

FileDescriptor openFile(const std::string& path);

// Waits until there is a service, for half a minute at most.
FileDescriptor connectWhenThere(const std::string& path, int type);
// The same, with the handshake done: the service has admitted this program.
FileDescriptor admittedConnection(const std::string& socketPath);

// The question about the open file.
XPCDictionary requestAbout(const std::string& path, const FileDescriptor& file);

void sendWhole(int socket, std::span<std::uint8_t> bytes, std::span<const int> descriptors);
// The bytes of one blocking read; nothing when a signal, or the socket's time-out, came first.
std::optional<std::span<const std::uint8_t>> readSome(int socket, std::span<std::uint8_t> buffer);

}  // namespace qm::bench
