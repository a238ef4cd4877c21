#include "platform/darwin/queue_core.hpp"

#include <utility>

namespace qm {
namespace {

dispatch_queue_t makeQueue(const std::string& label, bool isSerial, QualityOfService qos,
                           int relativePriority) {
  dispatch_queue_attr_t attributes = isSerial ? DISPATCH_QUEUE_SERIAL : DISPATCH_QUEUE_CONCURRENT;
  // For a class that does not exist there are no attributes, or the same: a queue without one.
  if (qos != QualityOfService::unspecified)
    if (const dispatch_queue_attr_t withClass = dispatch_queue_attr_make_with_qos_class(
            attributes, static_cast<dispatch_qos_class_t>(qos), relativePriority))
      attributes = withClass;
  // Objects that the system's frameworks make for an item go when it has run.
  attributes = dispatch_queue_attr_make_with_autorelease_frequency(attributes,
                                                                   DISPATCH_AUTORELEASE_FREQUENCY_WORK_ITEM);
  return dispatch_queue_create(label.c_str(), attributes);
}

}  // namespace

Queue::Core::Core(std::string itsLabel, bool isSerial, QualityOfService qos, int relativePriority)
    : label(std::move(itsLabel)), queue(makeQueue(label, isSerial, qos, relativePriority)) {
  dispatch_queue_set_specific(queue, this, this, nullptr);
}

Queue::Core::~Core() {
  dispatch_release(queue);  // items that are still queued keep it
}

Queue Queue::serial(std::string label, QualityOfService qos, int relativePriority) {
  return Queue(std::make_shared<Core>(std::move(label), true, qos, relativePriority));
}

Queue Queue::concurrent(std::string label, QualityOfService qos, int relativePriority) {
  return Queue(std::make_shared<Core>(std::move(label), false, qos, relativePriority));
}

Queue Queue::global() {
  // Never destroyed: workers may use it until the process has ended.
  static const Queue& queue = *new Queue(concurrent("com.quillmarsh.global"));
  return queue;
}

// The limit of the system's worker threads for the global concurrent queues.
std::size_t Queue::blockedItemsBound() {
  return 64;
}

const std::string& Queue::label() const {
  return core_->label;
}

QualityOfService Queue::qualityOfService() const {
  return static_cast<QualityOfService>(dispatch_queue_get_qos_class(core_->queue, nullptr));
}

// The item keeps the queue's handle, and with it its label and what isCurrent() asks for.
void Queue::async(Block<void()> work) const {
  const std::shared_ptr<Core> core = core_;
  dispatch_async(core_->queue, ^{
    (void)core;
    work();
  });
}

void Queue::after(std::chrono::nanoseconds delay, Block<void()> work) const {
  if (delay <= std::chrono::nanoseconds::zero()) return async(std::move(work));
  const std::shared_ptr<Core> core = core_;
  dispatch_after(dispatch_time(DISPATCH_TIME_NOW, delay.count()), core_->queue, ^{
    (void)core;
    work();
  });
}

bool Queue::isCurrent() const {
  return core_ != nullptr && dispatch_get_specific(core_.get()) == core_.get();
}

void Queue::syncBody(void (*body)(void*), void* context) const {
  const std::shared_ptr<Core> alive = core_;  // the work may release this handle
  dispatch_sync_f(alive->queue, context, body);
}

void runMainLoop() {
  dispatch_main();
}

}  // namespace qm
