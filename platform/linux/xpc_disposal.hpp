// What came from a peer and what is sent to one, closed as platform/disposal.hpp does: close(2) of a socket
// with files in it that cannot be closed does not return either. Any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "platform/disposal.hpp"
#include "platform/file_descriptor.hpp"

namespace qm::xpc {

// A descriptor of a message. Its end closes it elsewhere, since a message may end on any thread.
class PassedDescriptor {
 public:
  PassedDescriptor() = default;
  // The user is whoever sent it; for one of ours the one of closeElsewhere().
  PassedDescriptor(FileDescriptor descriptor, std::optional<std::uint32_t> userID = std::nullopt)
      : descriptor_(std::move(descriptor)), userID_(userID) {}
  PassedDescriptor(PassedDescriptor&&) noexcept = default;
  PassedDescriptor& operator=(PassedDescriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    std::swap(userID_, other.userID_);
    std::swap(kept_, other.kept_);
    return *this;
  }
  ~PassedDescriptor();

  explicit operator bool() const { return static_cast<bool>(descriptor_); }
  int get() const { return descriptor_.get(); }
  FileDescriptor duplicate() const { return descriptor_.duplicate(); }
  // Gives it away: from now on it is closed where its new owner ends.
  [[nodiscard]] FileDescriptor take() { return std::move(descriptor_); }
  // It turned out whose it is.
  void setUser(std::uint32_t userID) { userID_ = userID; }
  // Lets go of that no sooner than the descriptor is closed.
  void keepUntilClosed(std::shared_ptr<const void> kept) { kept_ = std::move(kept); }

 private:
  FileDescriptor descriptor_;
  std::optional<std::uint32_t> userID_;
  std::shared_ptr<const void> kept_;
};

// Its peer, of the user if that is known, sees the end at once. What nobody can have put a file into counts
// as the process's own.
void closeSocketElsewhere(FileDescriptor socket, std::optional<std::uint32_t> userID);

}  // namespace qm::xpc
