#include "tools/qmr/ping_command.hpp"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "foundation/error.hpp"
#include "platform/regular_file.hpp"
#include "tools/qmr/display_text.hpp"
#include "tools/qmr/exit_status.hpp"

namespace qm::qmr {
namespace {

constexpr const char* kName = "qmr-ping";
constexpr std::chrono::milliseconds kPauseBetweenTries{100};

std::string milliseconds(std::chrono::nanoseconds time) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f ms", static_cast<double>(time.count()) / 1e6);
  return text;
}

// Nothing, with errno set, when the empty file cannot be made.
std::optional<ReputationAnswer> askOnce(const ReputationClientOptions& clientOptions) {
  FileDescriptor file = createAnonymousFile(kName);
  if (!file) return std::nullopt;
  std::promise<ReputationAnswer> promise;
  ReputationClient client(clientOptions);
  client.ask({.path = std::string("/") + kName, .descriptor = std::move(file), .downloaded = false},
             [&promise](const ReputationAnswer& answer) { promise.set_value(answer); });
  return promise.get_future().get();
}

}  // namespace

int runPing(const PingOptions& options, ReputationClientOptions clientOptions, std::ostream& output,
            std::ostream& errors) {
  clientOptions.requestTimeout = options.timeout;
  const auto end = std::chrono::steady_clock::now() + options.wait;
  std::optional<ReputationAnswer> answer = askOnce(clientOptions);
  while (answer && !answer->answered() && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(kPauseBetweenTries);
    answer = askOnce(clientOptions);
  }
  if (!answer) {
    errors << "qmr: no empty file can be made: " << systemErrorText(errno) << '\n';
    return kNotAnswered;
  }
  if (!answer->answered()) {
    errors << "qmr: ping: " << displayText(answer->errorText) << '\n';
    return kNotAnswered;
  }
  output << clientOptions.serviceName << " answers: " << name(answer->verdict) << " after "
         << milliseconds(answer->elapsed) << '\n';
  return kNothingBad;
}

}  // namespace qm::qmr
