// What the product's companion programs have in common when they start: where their installation lies and
// whom it belongs to.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qm {

// The product's path in this installation: in its namespace, below the system root.
std::string installedPath(std::string_view productPath);

// The user whom the product's folder belongs to; whoever runs this program where there is none.
std::uint32_t ownerOfInstallation();

}  // namespace qm
