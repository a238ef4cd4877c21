#include "bench/load/asker.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <span>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "bench/load/floor_packets.hpp"
#include "platform/linux/run_folder.hpp"
#include "platform/linux/xpc_codec.hpp"
#include "platform/linux/xpc_frame.hpp"
#include "platform/linux/xpc_socket.hpp"
#include "platform/xpc.hpp"

namespace qm::load {
namespace {

constexpr std::size_t kReadBytes = 64 * 1024;
constexpr std::chrono::microseconds kRetryPause{200};
constexpr std::chrono::seconds kServicePatience{30};

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

FileDescriptor openFile(const std::string& path) {
  FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) fail(path);
  return file;
}

std::uint64_t sizeOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) fail(path);
  return static_cast<std::uint64_t>(status.st_size);
}

FileDescriptor connectWhenThere(const std::string& path, int type) {
  const auto address = SocketAddress::create(path);
  if (!address) fail(path);
  const auto deadline = std::chrono::steady_clock::now() + kServicePatience;
  for (;;) {
    FileDescriptor socket(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    if (!socket) fail("socket");
    if (::connect(socket.get(), address->address(), address->length()) == 0) return socket;
    const bool isEarly = errno == ENOENT || errno == ECONNREFUSED;
    if (!isEarly || std::chrono::steady_clock::now() > deadline) fail(path);
    std::this_thread::sleep_for(kRetryPause);
  }
}

void sendWhole(int socket, std::span<std::uint8_t> bytes, std::span<const int> descriptors) {
  iovec piece{.iov_base = bytes.data(), .iov_len = bytes.size()};
  if (xpc::sendWithDescriptors(socket, std::span(&piece, 1), descriptors) !=
      static_cast<ssize_t>(bytes.size()))
    fail("the service does not read");
}

// The bytes of one blocking read; nothing when a signal came first.
std::optional<std::span<const std::uint8_t>> readSome(int socket, std::span<std::uint8_t> buffer) {
  const ssize_t count = ::recv(socket, buffer.data(), buffer.size(), 0);
  if (count < 0 && errno == EINTR) return std::nullopt;
  if (count < 0) fail("recv");
  if (count == 0) throw std::runtime_error("the service ended the connection");
  return buffer.first(static_cast<std::size_t>(count));
}

FileDescriptor admittedConnection(const std::string& socketPath) {
  FileDescriptor socket = connectWhenThere(socketPath, SOCK_STREAM);
  std::array<std::uint8_t, xpc::kHeaderBytes + xpc::kNonceBytes> handshake{};
  if (::recv(socket.get(), handshake.data(), handshake.size(), MSG_WAITALL) !=
      static_cast<ssize_t>(handshake.size()))
    throw std::runtime_error("the service does not admit this program");
  xpc::writeHeader({.bodyBytes = xpc::kNonceBytes, .kind = xpc::FrameKind::hello}, handshake.data());
  sendWhole(socket.get(), handshake, {});
  return socket;
}

std::vector<std::uint8_t> requestAbout(const std::string& path) {
  const FileDescriptor file = openFile(path);
  XPCDictionary request = XPCDictionary::create();
  request.setBool("FileReputationRequest", true);
  request.setString("filename", path);
  request.setInt64("filesize", static_cast<std::int64_t>(sizeOf(path)));
  request.setUInt64("uid", ::getuid());
  request.setValue("filedescriptor", XPCObject::fileDescriptor(file.get()));
  return xpc::encodeMessage(request, xpc::kHeaderBytes).bytes;
}

bool hasVerdict(const xpc::Frame& frame) {
  constexpr std::string_view kKey = "reputationVerdict";
  return frame.header.kind == xpc::FrameKind::reply &&
         std::search(frame.body.begin(), frame.body.end(), kKey.begin(), kKey.end()) != frame.body.end();
}

class DaemonAsker final : public Asker {
 public:
  DaemonAsker(const std::string& socketPath, std::vector<std::string> files)
      : socket_(admittedConnection(socketPath)), files_(std::move(files)) {
    std::transform(files_.begin(), files_.end(), std::back_inserter(requests_), requestAbout);
  }

  void ask(std::uint64_t identifier, std::size_t file) override {
    const FileDescriptor opened = openFile(files_[file]);
    std::vector<std::uint8_t>& request = requests_[file];
    xpc::writeHeader({.bodyBytes = static_cast<std::uint32_t>(request.size() - xpc::kHeaderBytes),
                      .kind = xpc::FrameKind::request,
                      .descriptors = 1,
                      .identifier = identifier},
                     request.data());
    const int descriptor = opened.get();
    sendWhole(socket_.get(), request, std::span(&descriptor, 1));
  }

  std::optional<std::uint64_t> awaitAnswer() override {
    xpc::Frame frame;
    while (reader_.next(frame) != xpc::FrameReader::Step::frame) {
      if (reader_.refusal() != nullptr) throw std::runtime_error(reader_.refusal());
      const auto bytes = readSome(socket_.get(), buffer_);
      if (!bytes) return std::nullopt;
      reader_.feed(*bytes, {});
    }
    if (!hasVerdict(frame)) throw std::runtime_error("an answer without a verdict");
    return frame.header.identifier;
  }

 private:
  const FileDescriptor socket_;
  const std::vector<std::string> files_;
  std::vector<std::vector<std::uint8_t>> requests_;
  xpc::FrameReader reader_;
  std::array<std::uint8_t, kReadBytes> buffer_{};
};

class FloorAsker final : public Asker {
 public:
  FloorAsker(const std::string& socketPath, std::vector<std::string> files)
      : socket_(connectWhenThere(socketPath, SOCK_SEQPACKET)), files_(std::move(files)) {
    std::transform(files_.begin(), files_.end(), std::back_inserter(sizes_), sizeOf);
  }

  void ask(std::uint64_t identifier, std::size_t file) override {
    const FileDescriptor opened = openFile(files_[file]);
    FloorQuestion question{.identifier = identifier, .fileSize = sizes_[file]};
    const int descriptor = opened.get();
    sendWhole(socket_.get(), std::span(reinterpret_cast<std::uint8_t*>(&question), sizeof question),
              std::span(&descriptor, 1));
  }

  std::optional<std::uint64_t> awaitAnswer() override {
    FloorAnswer answer{};
    const auto bytes =
        readSome(socket_.get(), std::span(reinterpret_cast<std::uint8_t*>(&answer), sizeof answer));
    if (!bytes) return std::nullopt;
    if (bytes->size() != sizeof answer) throw std::runtime_error("a broken answer");
    return answer.identifier;
  }

 private:
  const FileDescriptor socket_;
  const std::vector<std::string> files_;
  std::vector<std::uint64_t> sizes_;
};

}  // namespace

std::unique_ptr<Asker> askDaemon(const std::string& socketPath, std::vector<std::string> files) {
  return std::make_unique<DaemonAsker>(socketPath, std::move(files));
}

std::unique_ptr<Asker> askFloor(const std::string& socketPath, std::vector<std::string> files) {
  return std::make_unique<FloorAsker>(socketPath, std::move(files));
}

struct IdlePeers::Connections {
  std::vector<FileDescriptor> sockets;
};

IdlePeers::IdlePeers(const std::string& socketPath, std::size_t count)
    : connections_(std::make_unique<Connections>()) {
  for (std::size_t i = 0; i < count; ++i) connections_->sockets.push_back(admittedConnection(socketPath));
}

IdlePeers::~IdlePeers() = default;

}  // namespace qm::load
