// The client of the Skyvault agent, which the Basalt backend asks about files and URLs: each call is one
// message to the agent's service and one reply.
//
// The connection is made with the first call and made anew with the next one after the agent ended; a call
// that waits at that moment gets an error at once. Errors are of qm::skyvault::kErrorDomain with a
// qm::skyvault::ErrorCode. Any thread; no call waits for anything.
#pragma once

#include <memory>
#include <string>

#include "platform/SVKSkyvaultServiceClientProtocol.hpp"
#include "platform/queue.hpp"
#include "platform/xpc.hpp"

class SVKSkyvaultServiceClient final : public SVKSkyvaultServiceClientProtocol {
 public:
  // Makes a new connection each time it is called, not yet activated. Called on the thread of a call to the
  // client.
  using ConnectionMaker = qm::Block<qm::XPCConnection()>;
  explicit SVKSkyvaultServiceClient(ConnectionMaker makeConnection);

  // Calls that wait still complete, with an error.
  ~SVKSkyvaultServiceClient() override;
  SVKSkyvaultServiceClient(const SVKSkyvaultServiceClient&) = delete;
  SVKSkyvaultServiceClient& operator=(const SVKSkyvaultServiceClient&) = delete;

  // A time-out of zero or less is over at once. Completions run on a concurrent queue of the client's.
  void queryReputationForFileHash(const std::string& sha256Hex, std::chrono::milliseconds timeout,
                                  Completion completion) override;
  void analyzeMetadata(const qm::Dictionary& metadata, std::chrono::milliseconds timeout,
                       Completion completion) override;
  void analyzeFileHandle(std::shared_ptr<qm::FileHandle> fileHandle, const qm::Dictionary& metadata,
                         std::chrono::milliseconds timeout, Completion completion) override;
  void queryReputationForURL(const qm::URL& url, const std::optional<std::vector<std::string>>& categories,
                             const std::optional<qm::Dictionary>& metadata, std::chrono::milliseconds timeout,
                             Completion completion) override;
  std::string description() const override;

 private:
  class Connection;

  // The handle is kept until the completion has been called.
  void send(const qm::XPCDictionary& request, std::chrono::milliseconds timeout, Completion completion,
            std::shared_ptr<qm::FileHandle> fileHandle = nullptr);

  const qm::Queue queue_;
  const std::shared_ptr<Connection> connection_;
};
