#include "companions/file_scans.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

#include "companions/wisp_error.hpp"

namespace qm {

// Of one path, for as long as somebody asks about it.
struct FileScans::Run {
  FilePath file;
  Callers waiting;  // with the mutex held; for the scan that is not begun
  // Of the scan that runs, on its thread.
  Callers callers;
  Clock::time_point begun;
  Clock::time_point end;
};

std::shared_ptr<FileScans> FileScans::create(Queue queue, Limits limits, Scanner scanner) {
  return std::shared_ptr<FileScans>(new FileScans(std::move(queue), limits, std::move(scanner)));
}

FileScans::FileScans(Queue queue, Limits limits, Scanner scanner)
    : limits_(limits),
      scanner_(std::move(scanner)),
      work_(std::move(queue), limits.running, limits.waiting, limits.lost) {}

namespace {

bool isWaiting(const FileScans::Caller& caller) {
  return caller.isWaiting();
}

// Those that do not wait any more.
std::vector<FileScans::Caller> takeGone(std::vector<FileScans::Caller>& callers) {
  const auto first = std::partition(callers.begin(), callers.end(), isWaiting);
  std::vector<FileScans::Caller> gone(std::make_move_iterator(first), std::make_move_iterator(callers.end()));
  callers.erase(first, callers.end());
  return gone;
}

}  // namespace

bool FileScans::ask(const FilePath& file, Caller caller) {
  Callers gone;  // goes outside of the lock
  const std::lock_guard lock(mutex_);
  std::shared_ptr<Run>& run = runs_[file.path];
  const bool isNew = run == nullptr;
  if (isNew) run = std::make_shared<Run>(Run{file, {}, {}, {}, {}});
  gone = takeGone(run->waiting);
  run->waiting.push_back(std::move(caller));
  if (!isNew || submit(run)) return true;
  gone = std::move(run->waiting);
  runs_.erase(file.path);
  return false;
}

bool FileScans::submit(const std::shared_ptr<Run>& run) {
  return work_.submit([self = shared_from_this(), run] { self->scan(run); });
}

void FileScans::scan(const std::shared_ptr<Run>& run) {
  run->callers = takeWaiting(*run);
  if (run->callers.empty()) return;
  run->begun = Clock::now();
  run->end = run->begun + limits_.time;
  const WispAnswers::Scan its{[this, &run] { return isWanted(*run); },
                              [this, &run] { return deadline(*run); }};
  ErrorPtr error;
  const Response response = scanner_(run->file, its, &error);
  stopGoingOn(*run);
  for (const Caller& caller : std::exchange(run->callers, {}))
    caller.answer(error == nullptr ? response : nullptr, error);
  scanForThoseThatCame(run);
}

FileScans::Callers FileScans::takeWaiting(Run& run) {
  Callers gone;
  const std::lock_guard lock(mutex_);
  gone = takeGone(run.waiting);
  if (run.waiting.empty()) runs_.erase(run.file.path);
  return std::exchange(run.waiting, {});
}

// The file may be another by now, so they get what a scan of their own finds: mostly that nothing has
// changed.
void FileScans::scanForThoseThatCame(const std::shared_ptr<Run>& run) {
  Callers gone, refused;
  {
    const std::lock_guard lock(mutex_);
    gone = takeGone(run->waiting);
    if (!run->waiting.empty() && submit(run)) return;
    refused = std::exchange(run->waiting, {});
    runs_.erase(run->file.path);
  }
  for (const Caller& caller : refused)
    caller.answer(nullptr, makeWispError(WispError::busy, "Too many calls are waiting"));
}

bool FileScans::isWanted(Run& run) {
  if (Clock::now() >= run.end) return false;
  if (std::any_of(run.callers.begin(), run.callers.end(), isWaiting)) return true;
  {
    const std::lock_guard lock(mutex_);
    if (std::any_of(run.waiting.begin(), run.waiting.end(), isWaiting)) return true;
  }
  return mayGoOn(run);
}

// One that has lost its place to others does not keep them from going on, either.
bool FileScans::mayGoOn(const Run& run) {
  const std::lock_guard lock(mutex_);
  const auto isLost = [now = Clock::now()](const auto& each) { return each.second <= now; };
  std::erase_if(goingOn_, isLost);
  if (goingOn_.count(&run) == 0 && goingOn_.size() >= limits_.goingOn) return false;
  goingOn_.emplace(&run, run.begun + limits_.lost.after);
  return true;
}

void FileScans::stopGoingOn(const Run& run) {
  const std::lock_guard lock(mutex_);
  goingOn_.erase(&run);
}

FileScans::Clock::time_point FileScans::deadline(Run& run) {
  if (mayGoOn(run)) return run.end;
  Clock::time_point last = Clock::now();
  const auto look = [&](const Caller& caller) { last = std::max(last, caller.deadline); };
  std::for_each(run.callers.begin(), run.callers.end(), look);
  const std::lock_guard lock(mutex_);
  std::for_each(run.waiting.begin(), run.waiting.end(), look);
  return std::min(last, run.end);
}

}  // namespace qm
