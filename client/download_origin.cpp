#include "client/download_origin.hpp"

#include <algorithm>
#include <array>

#include "platform/file_io.hpp"

namespace qm {
namespace {

constexpr std::array kOriginAttributes{
    "user.xdg.origin.url",       "user.xdg.referrer.url",
    "com.apple.quarantine",      "com.apple.metadata:kMDItemWhereFroms",
    "user.com.apple.quarantine", "user.com.apple.metadata:kMDItemWhereFroms",
};

}  // namespace

bool hasDownloadOrigin(int descriptor) {
  return std::any_of(kOriginAttributes.begin(), kOriginAttributes.end(), [descriptor](const char* attribute) {
    return getExtendedAttribute(descriptor, attribute, nullptr, 0) > 0;
  });
}

}  // namespace qm
