#include "tools/qmr/check_run.hpp"

#include <filesystem>
#include <ostream>
#include <system_error>
#include <utility>

#include "tools/qmr/display_text.hpp"
#include "tools/qmr/file_walker.hpp"
#include "tools/qmr/json_report.hpp"
#include "tools/qmr/table_report.hpp"
#include "tools/standard_streams.hpp"

namespace qm::qmr {
namespace {

// Files that wait in the client for each that is with the service: enough that it never runs dry.
constexpr std::size_t kAskedPerJob = 4;

std::unique_ptr<Report> makeReport(const CheckOptions& options, std::ostream& output, bool colour) {
  if (options.json) return std::make_unique<JsonReport>(output);
  return std::make_unique<TableReport>(
      output, TableStyle{.colour = colour, .answerColumn = options.follow.has_value()});
}

ReputationClientOptions completed(ReputationClientOptions clientOptions, const CheckOptions& options) {
  clientOptions.requestsInFlight = options.jobs;
  clientOptions.requestTimeout = options.timeout;
  // This run decides how long it waits for delayed answers.
  clientOptions.delayedAnswerTimeout = std::chrono::hours(24);
  return clientOptions;
}

// Without looking at symbolic links or "..": what the service is told should be what was asked for.
std::string absolutePath(const std::string& path) {
  std::error_code error;
  const std::filesystem::path whole = std::filesystem::absolute(path, error);
  if (error) return path;
  std::filesystem::path cleaned;
  for (const auto& component : whole)
    if (component != ".") cleaned /= component;
  return cleaned.string();
}

bool endsTheRun(ReputationFailure failure) {
  return failure == ReputationFailure::serviceUnavailable || failure == ReputationFailure::refused;
}

}  // namespace

struct CheckRun::File {
  std::string path;  // as the person wrote it
  ReputationVerdict verdict = ReputationVerdict::error;
  bool awaitsDelayed = false;
};

CheckRun::CheckRun(CheckOptions options, ReputationClientOptions clientOptions, RunStreams streams,
                   RunAppearance appearance)
    : options_(std::move(options)),
      streams_(streams),
      report_(makeReport(options_, streams.output, appearance.colour)),
      askedAtOnce_(options_.jobs * kAskedPerJob),
      input_(streams.input),
      output_(streams.output),
      progress_(streams.errors, options_.quiet ? 0 : appearance.progressWidth),
      client_(completed(std::move(clientOptions), options_)) {}

RunOutcome CheckRun::run() {
  Feeder feeder([self = shared_from_this()] { self->feed(); }, input_);
  waitForAnswers();
  client_.close();
  const bool isStuck = !feeder.end();
  // Once more: a file asked about while the client was closing gets its answer, too.
  if (!isStuck) client_.close();
  RunOutcome outcome = conclude();
  outcome.feederStuck = isStuck;
  return outcome;
}

void CheckRun::stop() {
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  changed_.notify_all();
}

void CheckRun::feed() {
  for (const std::string& path : options_.paths) {
    if (path == "-")
      feedFromInput();
    else if (!isCutShort())
      walk(path);
  }
  const std::lock_guard lock(mutex_);
  feederDone_ = true;
  changed_.notify_all();
}

bool CheckRun::isStopped() {
  const std::lock_guard lock(mutex_);
  return stopped_;
}

// Of a run that has ended, notes that there was more to ask.
bool CheckRun::isCutShort() {
  const std::lock_guard lock(mutex_);
  if (stopped_) notAsked_.add();
  if (stopped_ && options_.recursive) notAsked_.addUncounted();
  return stopped_;
}

void CheckRun::feedFromInput() {
  std::string path;
  int error = 0;
  if (isStopped()) return;  // nobody knows whether there is more
  while (input_.read(path, options_.nullSeparated ? '\0' : '\n', error)) {
    if (path.empty()) continue;
    if (isCutShort()) {
      const std::lock_guard lock(mutex_);
      return notAsked_.addUncounted();
    }
    walk(path);
  }
  const std::lock_guard lock(mutex_);
  inputError_ = error;
}

void CheckRun::walk(const std::string& path) {
  const WalkVisitor visitor{
      .file = [this](const std::string& file, SymbolicLinks links) { ask(file, links); },
      .failed = [this](const std::string& file, ReputationFailure failure,
                       const std::string& text) { couldNotLook(file, failure, text); },
      .linkSkipped =
          [this] {
            const std::lock_guard lock(mutex_);
            summary_.addSkippedLink();
          },
      .shouldStop = [this] { return isCutShort(); },
  };
  FileWalker({.recursive = options_.recursive, .oneFileSystem = options_.oneFileSystem}, visitor).walk(path);
}

void CheckRun::ask(const std::string& path, SymbolicLinks links) {
  {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return stopped_ || outstanding_ < askedAtOnce_; });
    if (stopped_) return notAsked_.add();
    ++outstanding_;
    showProgress(path);
  }
  const auto file = std::make_shared<File>();
  file->path = path;
  ReputationQuery query{
      .path = absolutePath(path), .symbolicLinks = links, .downloaded = options_.downloaded};
  if (options_.follow)
    query.delayedAnswer = [this, file](const ReputationAnswer& answer) { answeredLater(file, answer); };
  client_.ask(std::move(query), [this, file](const ReputationAnswer& answer) { answered(file, answer); });
}

void CheckRun::couldNotLook(const std::string& path, ReputationFailure failure, const std::string& text) {
  ReputationAnswer answer;
  answer.path = path;
  answer.failure = failure;
  answer.errorText = text;
  const std::lock_guard lock(mutex_);
  summary_.add(answer);
  write(answer);
}

void CheckRun::answered(const FilePtr& file, ReputationAnswer answer) {
  const std::lock_guard lock(mutex_);
  --outstanding_;
  summary_.add(answer);
  if (endsTheRun(answer.failure)) {
    if (serviceError_.empty()) serviceError_ = answer.errorText;
    stopped_ = true;
  } else if (answer.failure != ReputationFailure::closed) {
    ++answeredFiles_;
    file->verdict = answer.verdict;
    file->awaitsDelayed = options_.follow && (answer.verdict == ReputationVerdict::unknown ||
                                              answer.verdict == ReputationVerdict::undetected);
    if (file->awaitsDelayed) ++awaitingDelayed_;
    answer.path = file->path;
    write(answer);
  }
  showProgress(file->path);
  changed_.notify_all();
}

void CheckRun::answeredLater(const FilePtr& file, ReputationAnswer answer) {
  const std::lock_guard lock(mutex_);
  const bool awaited = std::exchange(file->awaitsDelayed, false);
  if (awaited) --awaitingDelayed_;
  if (answer.answered()) {
    summary_.replace(file->verdict, answer.verdict);
    file->verdict = answer.verdict;
  }
  if (answer.failure == ReputationFailure::connectionLost) {
    if (awaited) ++lostDelayed_;
  } else if (answer.failure == ReputationFailure::closed || answer.failure == ReputationFailure::timedOut) {
    if (awaited) ++missedDelayed_;
  } else {
    answer.path = file->path;
    write(answer);
  }
  changed_.notify_all();
}

void CheckRun::waitForAnswers() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return stopped_ || (feederDone_ && outstanding_ == 0); });
  if (options_.follow)
    changed_.wait_for(lock, *options_.follow, [this] { return stopped_ || awaitingDelayed_ == 0; });
  stopped_ = true;
  changed_.notify_all();
}

void CheckRun::write(const ReputationAnswer& answer) {
  progress_.clear();
  if (!output_.write([&] { report_->add(answer); })) stopped_ = true;
}

void CheckRun::showProgress(const std::string& path) {
  progress_.show([&] {
    return std::to_string(answeredFiles_) + " answered, " + std::to_string(outstanding_) + " under way  " +
           displayText(path);
  });
}

RunOutcome CheckRun::conclude() {
  const std::lock_guard lock(mutex_);
  progress_.clear();
  std::ostream& errors = streams_.errors;
  const RunOutcome outcome =
      output_.outcome(exitStatusAfterInput(summary_.exitStatus(), inputError_), errors);
  if (outcome.outputClosed) return outcome;
  if (inputError_ != 0) errors << "qmr: " << tools::inputProblem(inputError_) << '\n';
  if (!serviceError_.empty()) errors << "qmr: " << displayText(serviceError_) << '\n';
  if (lostDelayed_ > 0)
    errors << "qmr: the connection to the service ended, "
           << counted(lostDelayed_, "delayed answer", "delayed answers") << " will not come\n";
  if (!options_.quiet && (serviceError_.empty() || answeredFiles_ > 0)) {
    errors << summary_.text() << notAsked_.text();
    if (missedDelayed_ > 0) errors << "; " << missedDelayed_ << " without a delayed answer";
    errors << '\n';
  }
  errors << std::flush;
  return outcome;
}

}  // namespace qm::qmr
