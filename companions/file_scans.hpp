// The scans of files for callers that have little time. A scan whose callers were not answered in time goes
// on for those who ask next, and who asks about a file that is being scanned waits for that scan: a file is
// not scanned twice at a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "companions/bounded_work.hpp"
#include "companions/process_shares.hpp"
#include "companions/wisp_answers.hpp"
#include "foundation/block.hpp"
#include "foundation/error.hpp"
#include "platform/queue.hpp"

namespace qm {

class FileScans : public std::enable_shared_from_this<FileScans> {
 public:
  using Clock = std::chrono::steady_clock;
  using Response = WispAnswers::CloudScanResponse;
  // One scan of the file; runs on the queue.
  using Scanner = Block<Response(const FilePath& file, const WispAnswers::Scan& scan, ErrorPtr* error)>;

  struct Limits {
    std::size_t running = 4;  // each of them holds a file in memory
    std::size_t waiting = 64;
    std::size_t goingOn = 2;         // of those that run, the ones that nobody waits for any more
    std::chrono::seconds time{120};  // of one scan
    BoundedWork::LostItems lost{std::chrono::minutes(3), 8};
  };

  // Somebody who asks. The blocks are called from any thread, `answer` once at most: a caller that does not
  // wait any more may be let go of without.
  struct Caller {
    Block<bool()> isWaiting;
    Clock::time_point deadline;  // when it stops waiting
    Block<void(const Response& response, const ErrorPtr& error)> answer;
    WorkShare::Ticket ticket;  // given back when the caller was answered or let go of
  };

  static std::shared_ptr<FileScans> create(Queue queue, Limits limits, Scanner scanner);

  // False when there is no room; the caller is not kept then.
  [[nodiscard]] bool ask(const FilePath& file, Caller caller);

 private:
  struct Run;
  using Callers = std::vector<Caller>;

  FileScans(Queue queue, Limits limits, Scanner scanner);

  bool submit(const std::shared_ptr<Run>& run);
  void scan(const std::shared_ptr<Run>& run);
  bool isWanted(Run& run);
  bool mayGoOn(const Run& run);
  void stopGoingOn(const Run& run);
  Clock::time_point deadline(Run& run);
  // Those that the scan which begins is for; without any the run is over.
  Callers takeWaiting(Run& run);
  void scanForThoseThatCame(const std::shared_ptr<Run>& run);

  const Limits limits_;
  const Scanner scanner_;
  BoundedWork work_;
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<Run>> runs_;  // by the path
  std::map<const Run*, Clock::time_point> goingOn_;   // and when each of them is lost
};

}  // namespace qm
