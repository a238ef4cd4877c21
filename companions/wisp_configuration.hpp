// What the product's programs keep in the Wisp core daemon: its configuration, which is carried and not
// interpreted, and setting values by number. In memory only: who set something sets it again when the daemon
// was started anew, as after its first start.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "foundation/error.hpp"
#include "foundation/value.hpp"
#include "reputation/backends/QMRWispConfigurationObjC.hpp"

namespace qm {

// Any thread. The errors are of kWispErrorDomain.
class WispConfiguration {
 public:
  using Configuration = std::shared_ptr<const QMRWispConfigurationObjC>;

  static constexpr std::size_t kMaximumConfigurationSize = 65536;  // bytes of text
  static constexpr std::size_t kMaximumSettingSize = 16384;        // bytes of text and numbers
  static constexpr std::size_t kMaximumSettings = 256;

  // As it was set last; an empty one before. Never null.
  Configuration configuration() const;
  // Null for badRequest; too large for tooLarge.
  ErrorPtr setConfiguration(const Configuration& configuration);

  // Null when there is none.
  Value setting(std::int64_t key) const;
  // A null value removes it. Too large for tooLarge, one too many for tooMany.
  ErrorPtr setSetting(std::int64_t key, const Value& value);

 private:
  mutable std::mutex mutex_;
  Configuration configuration_ = std::make_shared<const QMRWispConfigurationObjC>();
  std::map<std::int64_t, Value> settings_;
};

}  // namespace qm
