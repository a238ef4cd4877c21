// The running program and the installation it belongs to, beyond what platform/system_root.hpp says. For the
// Linux platform layer and for what starts staged programs.
#pragma once

#include <string>
#include <string_view>

namespace qm {

// The root R for a program at R/Library/Quillmarsh[-namespace]/qxmac/bin/NAME, "/" for one that lies anywhere
// else. The path is absolute and without symbolic links; the file need not exist.
std::string programRoot(std::string_view programPath);

// The path of the running program, without symbolic links, as it was at the first call.
const std::string& ownProgramPath();
// programRoot of the running program: "/" or a path without a slash at its end.
const std::string& systemRoot();

}  // namespace qm
