// A connection of the product's own kind, of which code that holds it can read who the peer is.
#pragma once

#include <cstdint>
#include <memory>

#include "foundation/property.hpp"
#include "platform/audit_token.hpp"
#include "platform/remote_connection.hpp"

// Any thread.
class QMRXPCConnection {
 public:
  // No connection; the peer's token is zeros.
  QMRXPCConnection() = default;
  // An accepted peer, or a client that has been connected: its token is read here, once, as that of the
  // process that made the connection. Not null.
  explicit QMRXPCConnection(std::shared_ptr<qm::RemoteConnection> connection);

  const std::shared_ptr<qm::RemoteConnection>& connection() const { return connection_; }

  qm::AuditToken auditToken() const { return auditToken_.get(); }
  void setAuditToken(const qm::AuditToken& token) { auditToken_.set(token); }

  // Those of the token.
  std::uint32_t effectiveUserIdentifier() const { return auditToken().effectiveUserID(); }
  std::int32_t processIdentifier() const { return auditToken().processID(); }

 private:
  std::shared_ptr<qm::RemoteConnection> connection_;
  qm::Property<qm::AuditToken> auditToken_;
};
