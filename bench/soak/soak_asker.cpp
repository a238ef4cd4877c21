// Asks the daemon about files over a few connections that outlive whatever happens to the daemon, and
// accounts for every single request: each has exactly one end. bench/soak/soak drives it.
//
// Reads a number of requests a line from standard input; asks until so many have got the right verdict, and
// prints one line of JSON: how many were asked, and each request that ended in any other way, with its times
// (CLOCK_MONOTONIC, in seconds; of a lost one since when it may have been lost). The ends:
//
//   unanswered  the transport said that the daemon let the request go
//   error       a reply with "error", or with a verdict that says so
//   lost        the connection ended
//   unknown     a reply that does not know a file which is known
//   wrong       a reply with another verdict, or that belongs to another request
//   unasked     a second end of a request, or an end of none
//   hung        nothing came for as long as --patience says
#include <sys/socket.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/daemon_wire.hpp"
#include "platform/linux/xpc_codec.hpp"
#include "platform/linux/xpc_frame.hpp"

namespace qm::soak {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::int64_t kUnknownVerdict = 1;
constexpr std::int64_t kErrorVerdict = 6;
// Before a connection that met with a failure goes on.
constexpr std::chrono::milliseconds kFailurePause{20};
// A service that is there and refuses is tried again for so long; it may be short of descriptors.
constexpr std::chrono::seconds kAdmissionPatience{30};

struct KnownFile {
  std::string path;
  std::int64_t verdict = 0;
};

struct Plan {
  std::string socket;
  std::string fileList;
  std::vector<KnownFile> files;
  std::size_t connections = 4;
  std::size_t inFlight = 8;
  int patience = 60;  // seconds
};

double seconds(Clock::time_point time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

// One connection, used by one thread at a time. Reconnects.
class Asker {
 public:
  Asker(const Plan& plan, std::uint64_t number) : plan_(plan), number_(number) {}

  nlohmann::json ask(std::size_t count) {
    wanted_ = count;
    asked_ = answered_ = 0;
    irregular_ = nlohmann::json::array();
    while (answered_ < wanted_ && !hasHung_) converse();
    return {{"asked", asked_}, {"irregular", irregular_}};
  }

 private:
  struct Request {
    const KnownFile* file = nullptr;
    Clock::time_point at;
  };

  // Until all is asked and ended, or the connection is.
  void converse() {
    try {
      if (!socket_) connect();
      while (answered_ < wanted_ && !hasHung_) {
        while (answered_ + open_.size() < wanted_ && open_.size() < plan_.inFlight) send();
        receive();
      }
    } catch (const std::exception& error) {
      if (!socket_) {
        hasHung_ = true;
        record("hung", Clock::now(), error.what());
      }
      endAll("lost", error.what());
    }
  }
  void connect() {
    const auto deadline = Clock::now() + kAdmissionPatience;
    while (!socket_) try {
        lastHeard_ = Clock::now();
        socket_ = bench::admittedConnection(plan_.socket);
      } catch (const std::runtime_error&) {
        if (Clock::now() > deadline) throw;
        std::this_thread::sleep_for(kFailurePause);
      }
    const timeval patience{.tv_sec = plan_.patience, .tv_usec = 0};
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    reader_ = {};
  }
  void send() {
    const std::uint64_t identifier = ++lastIdentifier_;
    const KnownFile& file = plan_.files[identifier % plan_.files.size()];
    const FileDescriptor opened = bench::openFile(file.path);
    XPCDictionary request = bench::requestAbout(file.path, opened);
    request.setUInt64("requestId", nameOf(identifier));
    xpc::EncodedMessage message = xpc::encodeMessage(request, xpc::kHeaderBytes);
    xpc::writeHeader({.bodyBytes = static_cast<std::uint32_t>(message.bytes.size() - xpc::kHeaderBytes),
                      .kind = xpc::FrameKind::request,
                      .descriptors = 1,
                      .identifier = identifier},
                     message.bytes.data());
    open_.emplace(identifier, Request{.file = &file, .at = Clock::now()});
    ++asked_;
    const int descriptor = opened.get();
    bench::sendWhole(socket_.get(), message.bytes, std::span(&descriptor, 1));
  }
  void receive() {
    xpc::Frame frame;
    for (;;) {
      const xpc::FrameReader::Step step = reader_.next(frame);
      if (step == xpc::FrameReader::Step::refused) throw std::runtime_error(reader_.refusal());
      if (step == xpc::FrameReader::Step::frame && frame.header.kind != xpc::FrameKind::message) break;
      if (step == xpc::FrameReader::Step::frame) continue;  // a delayed response
      const auto bytes = bench::readSome(socket_.get(), buffer_);
      if (!bytes) {
        hasHung_ = true;
        return endAll("hung", "");
      }
      lastHeard_ = Clock::now();
      reader_.feed(*bytes, {});
    }
    const auto request = open_.extract(frame.header.identifier);
    if (request.empty()) return record("unasked", Clock::now(), "");
    end(request.key(), request.mapped(), frame);
  }
  void end(std::uint64_t identifier, const Request& request, const xpc::Frame& frame) {
    if (frame.header.kind == xpc::FrameKind::unanswered) return record("unanswered", request.at, "");
    const XPCDictionary reply = xpc::decodeMessage(frame.body, {}).message;
    if (!reply) return record("wrong", request.at, "not a message");
    if (reply.getBool("error"))
      return record("error", request.at, reply.getString("error-string").value_or(""));
    const std::int64_t verdict = reply.getInt64("reputationVerdict");
    if (reply.getUInt64("requestId") != nameOf(identifier) ||
        reply.getString("filename") != request.file->path)
      return record("wrong", request.at, "of another request");
    if (verdict == kErrorVerdict) return record("error", request.at, "verdict");
    if (verdict == kUnknownVerdict && verdict != request.file->verdict)
      return record("unknown", request.at, "");
    if (verdict != request.file->verdict || !reply.value("reputationVerdict"))
      return record("wrong", request.at, "verdict " + std::to_string(verdict));
    ++answered_;
  }
  void endAll(const char* end, const std::string& detail) {
    // The connection may have ended before the request that finds it so was asked.
    for (const auto& entry : std::exchange(open_, {}))
      record(end, std::min(entry.second.at, lastHeard_), detail);
    socket_.reset();
  }
  void record(const char* end, Clock::time_point since, const std::string& detail) {
    irregular_.push_back(
        {{"end", end}, {"asked", seconds(since)}, {"ended", seconds(Clock::now())}, {"detail", detail}});
    std::this_thread::sleep_for(kFailurePause);
  }
  // Unlike that of any other request of this program.
  std::uint64_t nameOf(std::uint64_t identifier) const { return number_ << 48 | identifier; }

  const Plan& plan_;
  const std::uint64_t number_;
  FileDescriptor socket_;
  Clock::time_point lastHeard_;  // when the service was there for certain
  xpc::FrameReader reader_;
  std::array<std::uint8_t, 64 * 1024> buffer_{};
  std::map<std::uint64_t, Request> open_;
  std::uint64_t lastIdentifier_ = 0;
  std::size_t wanted_ = 0;
  std::size_t asked_ = 0;
  std::size_t answered_ = 0;
  bool hasHung_ = false;
  nlohmann::json irregular_;
};

std::vector<KnownFile> readFiles(const std::string& path) {
  std::ifstream list(path);
  std::vector<KnownFile> files;
  for (KnownFile file; list >> file.verdict >> file.path;) files.push_back(file);
  if (files.empty()) throw std::runtime_error(path + ": no files");
  return files;
}

nlohmann::json askOnAll(std::vector<std::unique_ptr<Asker>>& askers, std::size_t count) {
  std::vector<nlohmann::json> reports(askers.size());
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < askers.size(); ++i) {
    const std::size_t share = (count + i) / askers.size();
    threads.emplace_back([&, i, share] { reports[i] = askers[i]->ask(share); });
  }
  for (std::thread& thread : threads) thread.join();
  nlohmann::json sum{{"asked", 0}, {"irregular", nlohmann::json::array()}};
  for (const nlohmann::json& report : reports) {
    sum["asked"] = sum["asked"].get<std::size_t>() + report["asked"].get<std::size_t>();
    for (const nlohmann::json& entry : report["irregular"]) sum["irregular"].push_back(entry);
  }
  return sum;
}

int run(int argumentCount, char** arguments) {
  CLI::App program("Asks the daemon about files, and accounts for every request.");
  Plan plan;
  program.add_option("--socket", plan.socket, "of the daemon")->required();
  program.add_option("--files", plan.fileList, "a file with a verdict (0 to 7) and a path a line")
      ->required();
  program.add_option("--connections", plan.connections)->check(CLI::Range(1, 64));
  program.add_option("--in-flight", plan.inFlight, "requests of a connection")->check(CLI::Range(1, 512));
  program.add_option("--patience", plan.patience, "seconds without a frame after which requests have hung");
  CLI11_PARSE(program, argumentCount, arguments);
  plan.files = readFiles(plan.fileList);
  std::vector<std::unique_ptr<Asker>> askers;
  for (std::size_t i = 0; i < plan.connections; ++i) askers.push_back(std::make_unique<Asker>(plan, i + 1));
  for (std::size_t count = 0; std::cin >> count;) std::cout << askOnAll(askers, count).dump() << std::endl;
  return 0;
}

}  // namespace
}  // namespace qm::soak

int main(int count, char** arguments) {
  try {
    return qm::soak::run(count, arguments);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "soak_asker: %s\n", error.what());
    return 1;
  }
}
