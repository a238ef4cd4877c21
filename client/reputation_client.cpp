#include "client/reputation_client.hpp"

#include <utility>

#include "client/reputation_session.hpp"

namespace qm {

ReputationClient::ReputationClient(ReputationClientOptions options)
    : session_(std::make_shared<ReputationSession>(std::move(options))) {}

ReputationClient::~ReputationClient() {
  close();
}

void ReputationClient::ask(ReputationQuery query, Completion completion) {
  session_->ask(std::move(query), std::move(completion));
}

bool ReputationClient::waitUntilIdle(std::chrono::milliseconds timeout) const {
  return session_->waitUntilIdle(timeout);
}

void ReputationClient::close() {
  session_->close();
}

}  // namespace qm
