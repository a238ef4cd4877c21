#include "validation/QMRXPCConnection.hpp"

#include <utility>

QMRXPCConnection::QMRXPCConnection(qm::XPCConnection connection)
    : connection_(std::move(connection)),
      auditToken_(connection_ ? connection_.auditToken() : qm::AuditToken()) {}
