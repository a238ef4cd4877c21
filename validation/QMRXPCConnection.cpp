#include "validation/QMRXPCConnection.hpp"

#include <utility>

QMRXPCConnection::QMRXPCConnection(std::shared_ptr<qm::RemoteConnection> connection)
    : connection_(std::move(connection)),
      auditToken_(connection_ ? connection_->auditToken() : qm::AuditToken()) {}
