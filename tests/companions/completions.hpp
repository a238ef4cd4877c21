// Keeps what a Skyvault client's completions were called with.
#pragma once

#include "platform/SVKSkyvaultServiceClientProtocol.hpp"
#include "platform/linux/skyvault_wire.hpp"
#include "support/testing.hpp"

namespace qm::test {

struct Answer {
  std::shared_ptr<const SVKSkyvaultResponse> response;
  ErrorPtr error;

  // The code of an error, else nothing.
  std::optional<skyvault::ErrorCode> code() const {
    if (error == nullptr) return std::nullopt;
    return static_cast<skyvault::ErrorCode>(error->code());
  }
};

class Completions {
 public:
  SVKSkyvaultServiceClientProtocol::Completion make() const {
    return [all = all_](const std::shared_ptr<const SVKSkyvaultResponse>& response, const ErrorPtr& error) {
      EXPECT_NE(response == nullptr, error == nullptr) << "a response or an error";
      all->put({response, error});
    };
  }
  const Inbox<Answer>* operator->() const { return all_.get(); }

 private:
  const std::shared_ptr<Inbox<Answer>> all_ = std::make_shared<Inbox<Answer>>();
};

}  // namespace qm::test
