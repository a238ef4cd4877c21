#include "daemon/request_protocol.hpp"

#include <cstdint>
#include <string>
#include <tuple>
#include <utility>

#include "daemon/daemon_log.hpp"
#include "filefacts/QMRHashProvider.hpp"
#include "filefacts/QMRMachoHeaderParser.hpp"
#include "filefacts/QMRMetaDataProvider.hpp"
#include "platform/activity.hpp"
#include "platform/autorelease_pool.hpp"
#include "platform/file_descriptor.hpp"
#include "platform/file_handle.hpp"
#include "reputation/QMRFileReputationRequest.hpp"

using qm::Date;
using qm::Dictionary;
using qm::ErrorPtr;
using qm::FileDescriptor;
using qm::FileHandle;
using qm::XPCConnection;
using qm::XPCDictionary;
using qm::XPCObject;

namespace {

using ResultPtr = std::shared_ptr<const QMRFileReputationResult>;

float elapsed_seconds(Date start) {
  const std::int64_t nanoseconds = Date::now().nanosecondsSince1970 - start.nanosecondsSince1970;
  return static_cast<float>(nanoseconds) / 1e9F;
}

XPCDictionary create_reply(const XPCDictionary& message) {
  XPCDictionary reply = message.createReply();
  if (!reply) {
    QM_LOG_ERROR(
        daemon_log(),
        "Failed to create reply object! Aborting. The origin message may have already been replied to.");
  }
  return reply;
}

// The early error replies: they carry nothing of the request and no key of a response. Null when nobody waits
// for one.
XPCDictionary create_error_reply(const XPCDictionary& message, const char* error_string,
                                 const ErrorPtr& error = nullptr) {
  XPCDictionary reply = create_reply(message);
  if (!reply) return reply;
  reply.setBool("error", true);
  reply.setString("error-string", error_string);
  if (error) reply.setString("error-description", error->description());
  return reply;
}

void send_error_reply(const XPCDictionary& reply) {
  if (reply) reply.remoteConnection().sendMessage(reply);
}

void copy_if_present(const XPCDictionary& from, const char* key, XPCDictionary& to) {
  if (const XPCObject value = from.value(key)) to.setValue(key, value);
}

void send_reply(const XPCDictionary& message, Date start, const ResultPtr& result, const ErrorPtr& error) {
  const float elapsed = elapsed_seconds(start);
  QM_LOG_DEBUG(daemon_log(), "Reputation provider responded in %.2f seconds with error=%@ filename=%@",
               elapsed, error, result ? result->filename() : std::nullopt);
  const XPCConnection connection = message.remoteConnection();
  XPCDictionary reply = create_reply(message);
  if (!reply) return;
  copy_if_present(message, "txTime", reply);
  copy_if_present(message, "requestId", reply);
  if (error) {
    QM_LOG_ERROR(daemon_log(),
                 "Error from reputation provider when processing message %{public}@: %{public}@", message,
                 error);
  }
  reputation_response_to_xpc_object(result, error)
      .apply([&reply](std::string_view key, const XPCObject& value) {
        reply.setValue(key, value);
        return true;
      });
  QM_LOG_DEBUG(daemon_log(), "Sending reply after %.2f seconds: %s", elapsed, reply.description());
  connection.sendMessage(reply);
}

// What is known of the file when the provider is asked. The handle owns the duplicated descriptor.
struct FileFacts {
  std::string filename;
  std::uint32_t userID = 0;
  std::shared_ptr<const QMRHashCacheEntry> hashes;
  Dictionary metadata;
  bool isAOTBinary = false;
  std::shared_ptr<FileHandle> handle;
};

void request_reputation(const std::shared_ptr<QMRReputationProtocol>& provider, const XPCDictionary& message,
                        FileFacts facts) {
  const XPCObject request_id = message.value("requestId");
  QM_LOG_DEBUG(daemon_log(), "Waiting for reputation provider %@ for request ID %s", provider,
               request_id ? request_id.description() : "<nil requestId object>");
  const Date start = Date::now();
  const bool is_downloaded_file = message.getBool("is-downloaded-file");
  const auto request = std::make_shared<QMRFileReputationRequest>(
      std::move(facts.filename), std::move(facts.handle), std::move(facts.hashes), facts.isAOTBinary,
      is_downloaded_file, facts.userID, "", std::move(facts.metadata));
  provider->reputationForFile(request, [message, start](const ResultPtr& result, const ErrorPtr& error) {
    send_reply(message, start, result, error);
  });
}

}  // namespace

void process_message(const std::shared_ptr<QMRReputationProtocol>& provider, const XPCDictionary& message,
                     const RequestQueue& queue) {
  if (message.getBool("FileReputationRequest")) {
    const RequestShare share = share_of_request(message.remoteConnection().effectiveUserID(), message);
    message.value("filedescriptor").setDescriptorUser(share.userID);
    queue.async(share, [provider, message] { process_file_reputation_request(provider, message); });
    return;
  }
  QM_LOG_ERROR(daemon_log(), "Unexpected XPC message: %{public}s",
               message ? message.description() : "<nil message object>");
}

RequestShare share_of_request(std::uint32_t peer_user_id, const XPCDictionary& message) {
  return {.userID = peer_user_id != 0 ? peer_user_id : static_cast<std::uint32_t>(message.getUInt64("uid")),
          .isOfLongFiles = message.getInt64("filesize") > std::int64_t{kLargestShortFile}};
}

void process_file_reputation_request(const std::shared_ptr<QMRReputationProtocol>& provider,
                                     const XPCDictionary& message) {
  qm::autoreleasePool([&] { do_process_file_reputation_request(provider, message); });
}

void do_process_file_reputation_request(const std::shared_ptr<QMRReputationProtocol>& provider,
                                        const XPCDictionary& message) {
  const std::optional<std::string> filename = message.getString("filename");
  if (!provider) {
    QM_LOG_ERROR(daemon_log(), "No reputation provider available, cannot provide reputation data");
    send_error_reply(create_error_reply(message, "No reputation provider available"));
    return;
  }
  if (!filename) {
    QM_LOG_ERROR(daemon_log(), "File reputation request without a file name: %{public}@", message);
    send_error_reply(create_error_reply(message, "No file name in request"));
    return;
  }
  const std::int64_t file_size = message.getInt64("filesize");
  FileFacts facts;
  facts.filename = *filename;
  facts.userID = static_cast<std::uint32_t>(message.getUInt64("uid"));
  FileDescriptor descriptor = message.duplicateDescriptor("filedescriptor");

  ErrorPtr error;
  facts.hashes = QMRHashProvider::generateHashesForFiledescriptor(
      descriptor.get(), static_cast<std::uint64_t>(file_size), &error);
  if (!facts.hashes) {
    // The duplicated descriptor stays open on this path, deliberately.
    std::ignore = descriptor.release();
    const XPCDictionary reply =
        create_error_reply(message, "Failed to calculate hashes for supplied fd", error);
    QM_LOG_ERROR(daemon_log(), "Error calculating hashes for %{public}s: %{public}@", facts.filename, error);
    send_error_reply(reply);
    return;
  }
  facts.metadata["file_size"] = static_cast<std::uint64_t>(file_size);
  Dictionary file_info = QMRMetaDataProvider::fileInfoForFiledescriptor(descriptor.get());
  if (file_info.empty()) {
    QM_LOG_ERROR(daemon_log(), "Failed to get file metadata for %s", facts.filename);
  } else {
    facts.metadata["file_info"] = std::move(file_info);
  }
  facts.isAOTBinary = QMRMachoHeaderParser::isAOTBinaryAtPath(std::nullopt, descriptor.get());
  const RequestShare share = share_of_request(message.remoteConnection().effectiveUserID(), message);
  facts.handle = std::make_shared<FileHandle>(descriptor.release(), true, share.userID);
  qm::initiateActivity("Requesting file reputation",
                       [&] { request_reputation(provider, message, std::move(facts)); });
}

XPCDictionary reputation_response_to_xpc_object(const ResultPtr& result, const ErrorPtr& error) {
  XPCDictionary response = XPCDictionary::create();
  response.setValue("replyTime", XPCObject::dateFromCurrent());
  response.setInt64("ttl", result ? static_cast<std::int64_t>(result->ttl()) : 0);
  response.setUInt64("uid", result ? result->fileAccessUserID() : 0);
  if (result && result->filename()) response.setString("filename", *result->filename());
  response.setInt64("prevalence", result ? result->prevalence() : 0);
  if (error) {
    response.setBool("error", true);
    response.setString("error-string", error->description());
    return response;
  }
  const qm::ReputationLevel verdict = result ? result->reputationVerdict() : 0;
  const std::optional<std::string> infection_name = result ? result->infectionName() : std::nullopt;
  QM_LOG_DEBUG(daemon_log(), "Reputation provider reported verdict %lu, infection name %@", verdict,
               infection_name);
  response.setInt64("reputationVerdict", static_cast<std::int64_t>(verdict));
  if (infection_name) response.setString("infectionName", *infection_name);
  return response;
}
