#include "settings/QMRServiceSubscription.hpp"

#include <utility>

QMRServiceSubscription::QMRServiceSubscription(std::shared_ptr<qm::RemoteListener> listener,
                                               ConnectionSetup connectionSetup)
    : listener_(std::move(listener)), connectionSetup_(std::move(connectionSetup)) {}

QMRServiceSubscription::~QMRServiceSubscription() {
  listener_->invalidate();
}
