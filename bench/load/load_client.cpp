// Asks a service about files in a closed loop: prints "asking" when it begins, and at the end (each file had
// its turn, the time is over, or SIGTERM came) what that took as one line of JSON. The daemon
// admits it like any other program of the product, so it runs in a staged installation. bench/load/measure
// drives it.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <exception>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/load/asker.hpp"
#include "platform/process_limits.hpp"

namespace qm::load {
namespace {

using Clock = std::chrono::steady_clock;

std::atomic<bool> isEnding = false;

struct Plan {
  std::string service = "daemon";
  std::string socket;
  std::string fileList;
  std::vector<pid_t> processes;
  std::size_t inFlight = 1;
  std::size_t warmUp = 0;
  double seconds = 1;
  bool eachOnce = false;
};

double secondsBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

// Processor time of a process, all its threads of then and now.
double processorSeconds(pid_t process) {
  clockid_t clock{};
  timespec time{};
  if (::clock_getcpuclockid(process, &clock) != 0 || ::clock_gettime(clock, &time) != 0)
    throw std::runtime_error("no processor time of process " + std::to_string(process));
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

std::vector<double> processorSeconds(const std::vector<pid_t>& processes) {
  std::vector<double> seconds;
  for (const pid_t process : processes) seconds.push_back(processorSeconds(process));
  return seconds;
}

std::vector<std::string> readLines(const std::string& path) {
  std::ifstream file(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  if (lines.empty()) throw std::runtime_error(path + ": no files");
  return lines;
}

// What is measured: everything asked after the warm-up, until the time is over (one turn of all places in
// flight at least) or each file had its turn.
class Loop {
 public:
  Loop(const Plan& plan, Asker& asker, std::size_t files) : plan_(plan), asker_(asker), files_(files) {}

  nlohmann::json run() {
    if (plan_.warmUp == 0) begin();
    while (mayAsk() && asked_.size() < plan_.inFlight) ask();
    while (!asked_.empty()) {
      const auto answered = asker_.awaitAnswer();
      if (!answered) break;  // a signal
      record(*answered);
      if (mayAsk()) ask();
    }
    return report();
  }

 private:
  bool mayAsk() const {
    if (isEnding || (plan_.eachOnce && lastIdentifier_ == files_)) return false;
    if (!isMeasuring_ || plan_.eachOnce || lastIdentifier_ < lastBefore_ + plan_.inFlight) return true;
    return secondsBetween(begun_, Clock::now()) < plan_.seconds;
  }
  void ask() {
    const std::uint64_t identifier = ++lastIdentifier_;
    asked_.emplace(identifier, Clock::now());
    asker_.ask(identifier, (identifier - 1) % files_);
  }
  void begin() {
    isMeasuring_ = true;
    lastBefore_ = lastIdentifier_;
    begun_ = ended_ = Clock::now();
    processorAtBegin_ = processorSeconds(plan_.processes);
  }
  void record(std::uint64_t identifier) {
    const auto node = asked_.extract(identifier);
    if (node.empty()) throw std::runtime_error("an answer to no question");
    const Clock::time_point now = Clock::now();
    if (isMeasuring_) {
      ended_ = now;
      if (node.mapped() >= begun_) latencies_.push_back(secondsBetween(node.mapped(), now));
      ++answers_;
    } else if (identifier >= plan_.warmUp) {
      begin();
    }
  }
  // Whoever still waits has waited that long at least.
  void recordUnanswered() {
    const Clock::time_point now = Clock::now();
    for (const auto& [identifier, at] : asked_) latencies_.push_back(secondsBetween(at, now));
  }
  double latency(double part) const {
    if (latencies_.empty()) return 0;
    const auto last = static_cast<double>(latencies_.size() - 1);
    return 1e6 * latencies_[static_cast<std::size_t>(part * last + 0.5)];
  }
  nlohmann::json report() {
    const double seconds = secondsBetween(begun_, ended_);
    std::vector<double> processor = processorSeconds(plan_.processes);
    for (std::size_t i = 0; i < processor.size(); ++i)
      processor[i] =
          answers_ == 0 ? 0 : 1e6 * (processor[i] - processorAtBegin_[i]) / static_cast<double>(answers_);
    recordUnanswered();
    std::sort(latencies_.begin(), latencies_.end());
    return {{"answers", answers_},
            {"unanswered", asked_.size()},
            {"seconds", seconds},
            {"requests_per_second", seconds > 0 ? static_cast<double>(answers_) / seconds : 0},
            {"p50_us", latency(0.5)},
            {"p90_us", latency(0.9)},
            {"p99_us", latency(0.99)},
            {"max_us", latency(1)},
            {"cpu_us_per_request", processor},
            {"ended_at", std::chrono::duration<double>(ended_.time_since_epoch()).count()}};
  }

  const Plan& plan_;
  Asker& asker_;
  const std::size_t files_;
  std::unordered_map<std::uint64_t, Clock::time_point> asked_;
  std::uint64_t lastIdentifier_ = 0;
  std::uint64_t lastBefore_ = 0;  // asked during the warm-up
  bool isMeasuring_ = false;
  Clock::time_point begun_;
  Clock::time_point ended_;
  std::uint64_t answers_ = 0;
  std::vector<double> latencies_;  // in seconds
  std::vector<double> processorAtBegin_;
};

std::unique_ptr<Asker> makeAsker(const Plan& plan, std::vector<std::string> files) {
  if (plan.service == "floor") return askFloor(plan.socket, std::move(files));
  if (plan.service == "library") return askThroughLibrary(plan.inFlight, std::move(files));
  return askDaemon(plan.socket, std::move(files));
}

void ask(const Plan& plan) {
  std::vector<std::string> files = readLines(plan.fileList);
  const std::size_t count = files.size();
  std::puts("connecting");
  std::fflush(stdout);
  const std::unique_ptr<Asker> asker = makeAsker(plan, std::move(files));
  std::puts("asking");
  std::fflush(stdout);
  std::puts(Loop(plan, *asker, count).run().dump().c_str());
}

// Until standard input ends.
void standIdle(const std::string& socket, std::size_t count) {
  const IdlePeers peers(socket, count);
  std::puts("ready");
  std::fflush(stdout);
  char byte = 0;
  while (::read(STDIN_FILENO, &byte, 1) > 0) continue;
}

int run(int count, char** arguments) {
  CLI::App program("Asks a service about files in a closed loop.");
  program.require_subcommand(1);
  Plan plan;
  std::size_t peers = 1;
  CLI::App* const asking =
      program.add_subcommand("ask", "Asks, and prints \"connecting\", \"asking\" and then a line of JSON");
  asking->add_option("--service", plan.service)->check(CLI::IsMember({"daemon", "floor", "library"}));
  asking->add_option("--socket", plan.socket, "of the daemon or the floor");
  asking->add_option("--files", plan.fileList, "a file with one path a line")->required();
  asking->add_option("--in-flight", plan.inFlight)->check(CLI::Range(1, 1024));
  asking->add_option("--warm-up", plan.warmUp, "requests that are not measured");
  asking->add_option("--seconds", plan.seconds);
  asking->add_flag("--each-once", plan.eachOnce, "ends behind the last file instead");
  asking->add_option("--process", plan.processes, "whose processor time is measured");
  CLI::App* const idle = program.add_subcommand("idle", "Admitted connections, until standard input ends");
  idle->add_option("--socket", plan.socket)->required();
  idle->add_option("--count", peers)->required();
  CLI11_PARSE(program, count, arguments);
  if (idle->parsed())
    standIdle(plan.socket, peers);
  else
    ask(plan);
  return 0;
}

}  // namespace
}  // namespace qm::load

int main(int count, char** arguments) {
  qm::raiseDescriptorLimit();
  // Not restarted: a wait for an answer ends.
  struct sigaction action {};
  action.sa_handler = [](int) { qm::load::isEnding = true; };
  ::sigaction(SIGTERM, &action, nullptr);
  try {
    return qm::load::run(count, arguments);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "load_client: %s\n", error.what());
    return 1;
  }
}
