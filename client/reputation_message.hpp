// The messages of the reputation service: the request, and reading its responses.
#pragma once

#include <cstdint>
#include <string>

#include "client/reputation_answer.hpp"
#include "platform/xpc.hpp"

namespace qm {

struct ReputationRequestFacts {
  std::uint64_t requestID = 0;
  std::string filename;
  std::int64_t fileSize = 0;  // bytes
  std::uint32_t userID = 0;
  int descriptor = -1;  // duplicated
  bool downloaded = false;
};

// A "FileReputationRequest", its "txTime" the time of the call. Null when the descriptor cannot be
// duplicated.
XPCDictionary makeReputationRequest(const ReputationRequestFacts& facts);

// Fills in everything but path, downloaded, delayed and elapsed from a reply or a delayed response. One that
// breaks the protocol gives malformedAnswer; levels above the last count as spam, as the service describes
// them.
void readReputationResponse(const XPCDictionary& response, ReputationAnswer& answer);

// The reply belongs to the request: it carries its identifier, or none (as the service's early errors do).
bool isReplyTo(const XPCDictionary& reply, std::uint64_t requestID);

}  // namespace qm
