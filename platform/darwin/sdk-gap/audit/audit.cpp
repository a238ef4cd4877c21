// On a Mac: declares every C function of the gap headers again, over the real SDK; a signature that differs does not
// compile. To be run from the project's root, after each change of the headers and with each new SDK:
//   clang++ -std=c++20 -fsyntax-only platform/darwin/sdk-gap/audit/audit.cpp
// On Linux, over the gap headers alone, it checks the constants only (tools/darwin-build does).
#include "values.hpp"
#define SDKGAP_AUDIT 1
#include "../include/CoreFoundation/CoreFoundation.h"
#include "../include/Security/Security.h"
#include "../include/notify.h"
#include "../include/os/activity.h"
#include "../include/os/log.h"
#include "../include/sys/xattr.h"
