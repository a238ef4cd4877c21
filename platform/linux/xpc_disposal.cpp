#include "platform/linux/xpc_disposal.hpp"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <memory>
#include <utility>

#include "platform/common/thread_annotations.hpp"
#include "platform/queue.hpp"

namespace qm::xpc {
namespace {

// Never destroyed: something may hang in there when the process ends.
class Closings {
 public:
  static Closings& shared() {
    static Closings& closings = *new Closings;
    return closings;
  }

  // False when too much waits.
  bool add(std::size_t descriptors, Block<void()> work) {
    MutexLock lock(mutex_);
    if (descriptors_ + descriptors > kMaximumClosingDescriptors) return false;
    descriptors_ += descriptors;
    Lane& lane = *std::min_element(lanes_.begin(), lanes_.end(), [](const Lane& a, const Lane& b) {
      return a.descriptors < b.descriptors;
    });
    lane.descriptors += descriptors;
    lane.queue.async([this, &lane, descriptors, work = std::move(work)] {
      work();
      MutexLock done(mutex_);
      lane.descriptors -= descriptors;
      descriptors_ -= descriptors;
    });
    return true;
  }

 private:
  struct Lane {
    Queue queue = Queue::serial("com.quillmarsh.xpc.closing");
    std::size_t descriptors = 0;  // waiting, or being closed
  };

  Mutex mutex_;
  std::array<Lane, kClosingQueues> lanes_ QM_GUARDED_BY(mutex_);
  std::size_t descriptors_ QM_GUARDED_BY(mutex_) = 0;  // of all lanes
};

template <class Thing>
void dispose(std::vector<Thing> things) {
  if (things.empty()) return;
  const auto shared = std::make_shared<std::vector<Thing>>(std::move(things));
  const auto clear = [shared] { shared->clear(); };
  if (!Closings::shared().add(shared->size(), clear)) clear();
}

}  // namespace

void closeElsewhere(std::vector<FileDescriptor> descriptors) {
  dispose(std::move(descriptors));
}

void closeSocketElsewhere(FileDescriptor socket) {
  if (!socket) return;
  ::shutdown(socket.get(), SHUT_RDWR);
  std::vector<FileDescriptor> sockets;
  sockets.push_back(std::move(socket));
  dispose(std::move(sockets));
}

void releaseElsewhere(std::vector<XPCObject> attachments) {
  dispose(std::move(attachments));
}

}  // namespace qm::xpc
