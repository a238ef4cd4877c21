// XPC: typed messages, descriptors and endpoints between processes. Objects are handles on shared content,
// null when default-constructed, and may be used from any thread; a dictionary or array under construction
// belongs to one.
//
// A listener's event handler receives each new peer as a connection (and errors); a peer's or client's
// handler receives dictionaries and errors. One connection's handler never runs concurrently with itself.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/block.hpp"
#include "foundation/value.hpp"
#include "platform/audit_token.hpp"
#include "platform/file_descriptor.hpp"
#include "platform/queue.hpp"

namespace qm {

enum class XPCType : std::uint8_t {
  null,
  boolean,
  int64,
  uint64,
  real,
  date,
  data,
  string,
  uuid,
  array,
  dictionary,
  fileDescriptor,
  endpoint,
  connection,
  error
};

class XPCDictionary;
class XPCArray;
class XPCConnection;

class XPCObject {
 public:
  struct Representation;

  XPCObject() = default;  // no object
  explicit XPCObject(std::shared_ptr<Representation> representation)
      : representation_(std::move(representation)) {}

  static XPCObject null();
  static XPCObject boolean(bool value);
  static XPCObject int64(std::int64_t value);
  static XPCObject uint64(std::uint64_t value);
  static XPCObject real(double value);
  static XPCObject date(Date value);
  static XPCObject dateFromCurrent();
  static XPCObject data(const void* bytes, std::size_t length);
  // Cut at the first NUL; ill-formed UTF-8 is replaced by U+FFFD.
  static XPCObject string(std::string_view text);
  static XPCObject uuid(const UUID& value);
  // Duplicates the descriptor, the caller keeps its own. Null for a bad descriptor.
  static XPCObject fileDescriptor(int descriptor);
  // Takes the descriptor over. Null for an empty or a bad one. The user is the one of closeElsewhere()
  // (disposal.hpp).
  static XPCObject fileDescriptor(FileDescriptor descriptor,
                                  std::optional<std::uint32_t> userID = std::nullopt);

  explicit operator bool() const { return representation_ != nullptr; }
  XPCType type() const;  // the object must not be null

  // The values; the neutral one (false, 0, NaN, nothing) when the object is null or of another type.
  bool boolValue() const;
  std::int64_t int64Value() const;
  std::uint64_t uint64Value() const;
  double realValue() const;
  Date dateValue() const;
  const Data* dataValue() const;
  const std::string* stringValue() const;
  std::optional<UUID> uuidValue() const;
  // A new descriptor with each call, close-on-exec.
  FileDescriptor duplicateDescriptor() const;
  // The descriptor was received and is open on behalf of that user, not of its sender: its closing counts as
  // the user's. Nothing happens when the object is null or of another type. Whoever calls it is the only one
  // who has the object's message.
  void setDescriptorUser(std::uint32_t userID) const;

  // Null objects when this is of another type.
  XPCDictionary asDictionary() const;
  XPCArray asArray() const;
  XPCConnection asConnection() const;

  // For people and logs; its layout is not an interface.
  std::string description() const;

  // Types and contents are equal; descriptors and connections by identity.
  friend bool operator==(const XPCObject& a, const XPCObject& b);

  const std::shared_ptr<Representation>& representation() const { return representation_; }

 protected:
  std::shared_ptr<Representation> representation_;
};

class XPCArray : public XPCObject {
 public:
  XPCArray() = default;
  static XPCArray create();
  std::size_t count() const;
  XPCObject value(std::size_t index) const;  // null past the end
  void append(const XPCObject& value);

 private:
  friend class XPCObject;
  using XPCObject::XPCObject;
};

class XPCDictionary : public XPCObject {
 public:
  XPCDictionary() = default;
  static XPCDictionary create();

  // The reply to a message that was received: null when the sender waits for none, or one was already made.
  // Sent with sendMessage on remoteConnection(). A message dropped without a reply gives its sender an error.
  XPCDictionary createReply() const;
  // The peer of a received message or of a reply made from one; null for any other.
  XPCConnection remoteConnection() const;

  std::size_t count() const;
  // Null when there is none.
  XPCObject value(std::string_view key) const;
  bool getBool(std::string_view key) const { return value(key).boolValue(); }
  std::int64_t getInt64(std::string_view key) const { return value(key).int64Value(); }
  std::uint64_t getUInt64(std::string_view key) const { return value(key).uint64Value(); }
  std::optional<std::string> getString(std::string_view key) const;
  FileDescriptor duplicateDescriptor(std::string_view key) const { return value(key).duplicateDescriptor(); }

  // Replaces what is there; a null object removes the key.
  void setValue(std::string_view key, const XPCObject& value);
  void setBool(std::string_view key, bool value) { setValue(key, boolean(value)); }
  void setInt64(std::string_view key, std::int64_t value) { setValue(key, int64(value)); }
  void setUInt64(std::string_view key, std::uint64_t value) { setValue(key, uint64(value)); }
  void setString(std::string_view key, std::string_view value) { setValue(key, string(value)); }

  // Calls for each entry until the applier returns false; the dictionary must not change meanwhile.
  bool apply(const Block<bool(std::string_view key, const XPCObject& value)>& applier) const;

 private:
  friend class XPCObject;
  using XPCObject::XPCObject;
};

// Conversion of plain values. Errors become dictionaries; objects of other classes, descriptors, endpoints
// and connections become nothing.
XPCObject xpcObjectFromValue(const Value& value);
Value valueFromXPCObject(const XPCObject& object);

// The error objects a handler may get. Compare with ==.
XPCObject xpcErrorConnectionInterrupted();  // the named service went away; the connection can be used again
XPCObject xpcErrorConnectionInvalid();      // final
XPCObject xpcErrorReplyTimedOut();          // no reply in time (only with a time-out given)
// The request breaks a limit of the transport and was not sent: sent again it would be refused again. The log
// says which one. The connection goes on.
XPCObject xpcErrorMessageRefused();
// The text of an error object; empty for any other object.
std::string xpcErrorDescription(const XPCObject& error);

// A listening place that only its holder can connect to. Travels in messages.
class XPCEndpoint : public XPCObject {
 public:
  XPCEndpoint() = default;
  static XPCEndpoint from(const XPCObject& object);  // null when the object is no endpoint

 private:
  using XPCObject::XPCObject;
};

// A client or listener whose last handle goes ends without a call of its handler: what was sent is still
// delivered, and as long as replies are outstanding it stays. A peer lives until its final error, whoever
// holds it.
class XPCConnection : public XPCObject {
 public:
  using EventHandler = Block<void(const XPCObject& event)>;
  using ReplyHandler = Block<void(const XPCObject& reply)>;

  XPCConnection() = default;

  // A service under its name. Nothing is opened before activate(); that a name is taken already, or cannot be
  // had, reaches the handler as an error. Handlers run on the target queue when that is serial. Without one,
  // or with a concurrent one, the connections run beside each other, each handler one call at a time.
  static XPCConnection createListener(std::string_view serviceName, Queue targetQueue = {});
  static XPCConnection createAnonymousListener(Queue targetQueue = {});
  XPCEndpoint endpoint() const;  // of an anonymous listener
  static XPCConnection createClient(std::string_view serviceName, Queue targetQueue = {});
  static XPCConnection createClient(const XPCEndpoint& endpoint, Queue targetQueue = {});

  // Required before activate(). The handler is released after the final error (invalid).
  void setEventHandler(EventHandler handler) const;
  // Starts it; messages sent before wait until then.
  void activate() const;
  // Refuses a peer in the listener's handler, or ends a connection: queued messages are dropped, outstanding
  // reply handlers and then, for the last time, the event handler get the invalid error.
  void cancel() const;

  // FIFO per connection, any thread, no report. The content is taken at the call.
  void sendMessage(const XPCDictionary& message) const;
  // The handler runs exactly once on the queue, with a dictionary or an error object. A time-out of zero
  // waits without limit; a reply that comes after the time-out is dropped.
  void sendMessageWithReply(const XPCDictionary& message, const Queue& queue, ReplyHandler handler,
                            std::chrono::milliseconds timeout = std::chrono::milliseconds::zero()) const;
  // Waits for the reply, without limit, and returns it or an error object. Needs no queue and no worker, so
  // it may also be called on the connection's own queue.
  XPCObject sendMessageWithReplySync(const XPCDictionary& message) const;
  // Runs the block after everything sent before has left, or at once on a cancelled connection.
  void sendBarrier(Block<void()> block) const;

  // The peer when the connection was made; zeros before that.
  AuditToken auditToken() const;
  std::int32_t processID() const { return auditToken().processID(); }
  std::uint32_t effectiveUserID() const { return auditToken().effectiveUserID(); }

 private:
  friend class XPCObject;
  friend class XPCDictionary;
  using XPCObject::XPCObject;
};

}  // namespace qm
