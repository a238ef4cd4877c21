// The daemon's only request protocol: one dictionary a file, carrying an open descriptor of it, and one reply
// with the file's reputation or an error. docs/wire.md lists the keys.
#pragma once

#include <cstdint>
#include <memory>

#include "daemon/request_queue.hpp"
#include "foundation/error.hpp"
#include "platform/xpc.hpp"
#include "reputation/QMRFileReputationResult.hpp"
#include "reputation/QMRReputationProtocol.hpp"

// Routes a message of a peer: a file reputation request moves to the queue, anything else is logged and gets
// no reply. Returns at once. The provider may be null; then the request is answered with an error.
void process_message(const std::shared_ptr<QMRReputationProtocol>& provider, const qm::XPCDictionary& message,
                     const RequestQueue& queue);

// The share of the queue that the request takes: that of the user who runs the peer. A service of root's asks
// on behalf of others, and the request says of whom.
RequestShare share_of_request(std::uint32_t peer_user_id, const qm::XPCDictionary& message);

// Answers one request, with everything temporary released when it returns.
void process_file_reputation_request(const std::shared_ptr<QMRReputationProtocol>& provider,
                                     const qm::XPCDictionary& message);

// Hashes the file, gathers its facts and asks the provider. Blocks while the file is read. The reply is sent
// from the provider's completion, usually later and on another thread.
void do_process_file_reputation_request(const std::shared_ptr<QMRReputationProtocol>& provider,
                                        const qm::XPCDictionary& message);

// The response dictionary of a result or an error, for replies and for delayed responses. Without a result
// (an error comes with none) the numbers are 0 and there is no "filename".
qm::XPCDictionary reputation_response_to_xpc_object(
    const std::shared_ptr<const QMRFileReputationResult>& result, const qm::ErrorPtr& error);
