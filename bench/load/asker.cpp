#include "bench/load/asker.hpp"

#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <span>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "bench/daemon_wire.hpp"
#include "bench/load/floor_packets.hpp"
#include "platform/linux/xpc_codec.hpp"
#include "platform/linux/xpc_frame.hpp"

namespace qm::load {
namespace {

using bench::admittedConnection;
using bench::connectWhenThere;
using bench::failWithErrno;
using bench::openFile;
using bench::readSome;
using bench::requestAbout;
using bench::sendWhole;

constexpr std::size_t kReadBytes = 64 * 1024;

std::uint64_t sizeOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) failWithErrno(path);
  return static_cast<std::uint64_t>(status.st_size);
}

std::vector<std::uint8_t> encodedRequestAbout(const std::string& path) {
  return xpc::encodeMessage(requestAbout(path, openFile(path)), xpc::kHeaderBytes).bytes;
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
    std::transform(files_.begin(), files_.end(), std::back_inserter(requests_), encodedRequestAbout);
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
