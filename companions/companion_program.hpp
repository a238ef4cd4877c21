// What the product's companion programs have in common when they start: the process's own settings, where
// their installation lies, whom it belongs to, and who may talk to them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/block.hpp"
#include "platform/audit_token.hpp"

namespace qm {

// Before anything else: no descriptor that is opened later is a standard one, there are as many as there may
// be, the heap does not grow with the threads, and lines of the log go where the system wants them.
void beginCompanion();

// The product's path in this installation: in its namespace, below the system root.
std::string installedPath(std::string_view productPath);

// The user whom the product's folder belongs to; whoever runs this program where there is none.
std::uint32_t ownerOfInstallation();

// Whether a peer's program is signed as those of the product are. Any thread; may take its time.
Block<bool(const AuditToken& peer)> admissionBySignature();

}  // namespace qm
