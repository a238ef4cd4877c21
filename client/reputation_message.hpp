// The messages of the reputation service: the request, and reading its responses.
#pragma once

#include <cstdint>
#include <string>

#include "client/reputation_answer.hpp"
#include "platform/file_descriptor.hpp"
#include "platform/xpc.hpp"

namespace qm {

struct ReputationRequestFacts {
  std::uint64_t requestID = 0;
  std::string filename;
  std::int64_t fileSize = 0;  // bytes
  std::uint32_t userID = 0;
  FileDescriptor descriptor;
  bool downloaded = false;
};

// A "FileReputationRequest", its "txTime" the time of the call; the descriptor is part of it from then on.
// Null when that is a bad one.
XPCDictionary makeReputationRequest(ReputationRequestFacts facts);

// Fills in everything but path, downloaded, delayed and elapsed from a reply or a delayed response. One that
// breaks the protocol gives malformedAnswer; levels above the last count as spam, as the service describes
// them.
void readReputationResponse(const XPCDictionary& response, ReputationAnswer& answer);

// The reply belongs to the request: it carries its identifier, or none (as the service's early errors do).
bool isReplyTo(const XPCDictionary& reply, std::uint64_t requestID);

}  // namespace qm
