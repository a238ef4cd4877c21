// Stands for the product's authorization facilities, which ask for an administrator's consent. A settings
// client holds one for its privileged operations; no program here calls those, so it has nothing to do.
#pragma once

class QMRAuthorization {
 public:
  QMRAuthorization() = default;
  QMRAuthorization(const QMRAuthorization&) = delete;
  QMRAuthorization& operator=(const QMRAuthorization&) = delete;
};
