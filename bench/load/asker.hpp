// One connection over which files are asked about, as bare as it can be: a thread that writes and reads the
// socket itself. The daemon and the floor are asked alike, so that what differs between them is theirs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qm::load {

// Throws std::runtime_error when the socket or the service fails.
class Asker {
 public:
  virtual ~Asker() = default;

  // Opens the file, and asks about it.
  virtual void ask(std::uint64_t identifier, std::size_t file) = 0;
  // Waits for an answer and returns its identifier; nothing when a signal came first.
  virtual std::optional<std::uint64_t> awaitAnswer() = 0;
};

// Over the wire of the reputation service. Waits until there is a service.
std::unique_ptr<Asker> askDaemon(const std::string& socketPath, std::vector<std::string> files);
// In the packets of floor_packets.hpp. The same.
std::unique_ptr<Asker> askFloor(const std::string& socketPath, std::vector<std::string> files);

// Through the client library, as a program would that waits for each answer.
std::unique_ptr<Asker> askThroughLibrary(std::size_t inFlight, std::vector<std::string> files);

// Admitted connections that ask nothing, as long as the object lives.
class IdlePeers {
 public:
  IdlePeers(const std::string& socketPath, std::size_t count);
  ~IdlePeers();

 private:
  struct Connections;
  const std::unique_ptr<Connections> connections_;
};

}  // namespace qm::load
