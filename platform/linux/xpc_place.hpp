// Where services are found: a socket file in the run folder under the service's name, or a socket that the
// service manager opened; and the way through an endpoint.
#pragma once

#include <string>

#include "platform/file_descriptor.hpp"

namespace qm::xpc {

// A listening socket. Its file goes with it when it was made here.
class Place {
 public:
  Place() = default;
  Place(FileDescriptor socket, FileDescriptor lock, std::string path);
  Place(Place&&) noexcept = default;
  Place& operator=(Place&&) = delete;
  ~Place();

  explicit operator bool() const { return static_cast<bool>(socket_); }
  int socket() const { return socket_.get(); }

 private:
  FileDescriptor socket_;
  FileDescriptor lock_;
  std::string path_;
};

// Takes over the service manager's socket of that name or, when none has it, the first that is left (each
// once in a process); without any makes the file NAME (mode 0666) in the run folder, and the folder (0755) as
// well. The file of a dead process, whose NAME.lock is free and on which nobody listens, is replaced. An
// empty place and a reason, when there is none to be had.
Place openPlace(const std::string& serviceName, std::string& reason);

// A connected socket; empty with errno set. EAGAIN: too many wait there already.
FileDescriptor connectToService(const std::string& serviceName);

// The same through the connecting end of an anonymous listener: makes a pair of sockets, sends one, returns
// the other.
FileDescriptor connectThroughEndpoint(int endpoint);

}  // namespace qm::xpc
