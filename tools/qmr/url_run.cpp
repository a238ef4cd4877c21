#include "tools/qmr/url_run.hpp"

#include <chrono>
#include <cstdint>
#include <optional>
#include <ostream>
#include <utility>
#include <vector>

#include "tools/qmr/display_text.hpp"
#include "tools/standard_streams.hpp"

namespace qm::qmr {
namespace {

// Answers that may wait for an older one, for each question that is with the backend.
constexpr std::size_t kAskedPerJob = 4;
constexpr const char* kWhiteSpace = " \t\r";

std::string trimmed(const std::string& line) {
  const std::size_t begin = line.find_first_not_of(kWhiteSpace);
  if (begin == std::string::npos) return {};
  return line.substr(begin, line.find_last_not_of(kWhiteSpace) - begin + 1);
}

}  // namespace

struct URLRun::Question {
  std::string url;
  std::chrono::steady_clock::time_point asked;
  std::optional<URLAnswer> answer{};
};

// What the backend holds of a question: should it let go of it without an answer, there will be none.
class URLRun::Reply {
 public:
  Reply(std::shared_ptr<URLRun> run, QuestionPtr question)
      : run_(std::move(run)), question_(std::move(question)) {}
  ~Reply() {
    run_->answered(*question_, run_->failed(URLFailure::dropped,
                                            "the " + run_->backend_.name + " service gave no answer"));
  }
  Reply(const Reply&) = delete;
  Reply& operator=(const Reply&) = delete;

  void give(const QMRURLReputationResult& result) const { run_->answered(*question_, urlAnswerFrom(result)); }

 private:
  const std::shared_ptr<URLRun> run_;
  const QuestionPtr question_;
};

URLRun::URLRun(URLOptions options, URLBackend backend, RunStreams streams, RunAppearance appearance)
    : options_(std::move(options)),
      backend_(std::move(backend)),
      streams_(streams),
      input_(streams.input),
      report_(options_.json ? makeURLJson(streams.output, backend_.name)
                            : makeURLTable(streams.output, backend_.name, appearance.colour)),
      output_(streams.output),
      progress_(streams.errors, options_.quiet ? 0 : appearance.progressWidth) {}

RunOutcome URLRun::run() {
  Feeder feeder([self = shared_from_this()] { self->feed(); }, input_);
  writeAnswers();
  const bool isStuck = !feeder.end();
  RunOutcome outcome = conclude();
  outcome.feederStuck = isStuck;
  return outcome;
}

void URLRun::stop() {
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  changed_.notify_all();
}

// --- Questions ---

void URLRun::feed() {
  for (const std::string& url : options_.urls) {
    if (url == "-")
      feedFromInput();
    else
      ask(url);
  }
  const std::lock_guard lock(mutex_);
  feederDone_ = true;
  changed_.notify_all();
}

bool URLRun::isStopped() {
  const std::lock_guard lock(mutex_);
  return stopped_;
}

void URLRun::feedFromInput() {
  std::string line;
  int error = 0;
  if (isStopped()) return;  // nobody knows whether there is more
  while (input_.read(line, '\n', error)) {
    if (const std::string url = trimmed(line); url.empty() || ask(url)) continue;
    const std::lock_guard lock(mutex_);
    return notAsked_.addUncounted();
  }
  const std::lock_guard lock(mutex_);
  inputError_ = error;
}

// False when the run has ended.
bool URLRun::ask(const std::string& url) {
  const auto question = std::make_shared<Question>();
  question->url = url;
  {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] {
      return stopped_ || (outstanding_ < options_.jobs && questions_.size() < options_.jobs * kAskedPerJob);
    });
    if (stopped_) {
      notAsked_.add();
      return false;
    }
    question->asked = std::chrono::steady_clock::now();
    questions_.push_back(question);
    ++outstanding_;
    changed_.notify_all();
  }
  backend_.provider->reputationForURL(
      url, static_cast<std::uint32_t>(options_.timeout.count()),
      [reply = std::make_shared<const Reply>(shared_from_this(), question)](
          const std::shared_ptr<const QMRURLReputationResult>& result) { reply->give(*result); });
  return true;
}

void URLRun::answered(Question& question, URLAnswer answer) {
  const std::lock_guard lock(mutex_);
  setAnswer(question, std::move(answer));
}

// The first answer counts.
void URLRun::setAnswer(Question& question, URLAnswer answer) {
  if (question.answer) return;
  answer.url = question.url;
  answer.elapsed = std::chrono::steady_clock::now() - question.asked;
  question.answer = std::move(answer);
  --outstanding_;
  changed_.notify_all();
}

URLAnswer URLRun::failed(URLFailure failure, std::string text) const {
  URLAnswer answer;
  answer.failure = failure;
  answer.errorText = std::move(text);
  return answer;
}

// --- Answers ---

void URLRun::writeAnswers() {
  std::unique_lock lock(mutex_);
  while (!stopped_ && !(feederDone_ && questions_.empty())) {
    if (questions_.empty()) {
      changed_.wait(lock, [this] { return stopped_ || feederDone_ || !questions_.empty(); });
      continue;
    }
    const QuestionPtr oldest = questions_.front();
    waitForAnswer(oldest, lock);
    if (!oldest->answer) break;
    questions_.pop_front();
    changed_.notify_all();
    lock.unlock();
    write(*oldest->answer);
    lock.lock();
  }
  stopped_ = true;
  changed_.notify_all();
}

// All have the same time, so that the oldest question is the first whose time is over. Without an answer only
// when the run was stopped.
void URLRun::waitForAnswer(const QuestionPtr& question, std::unique_lock<std::mutex>& lock) {
  showProgress(question->url);
  const auto isOver = [&] { return stopped_ || question->answer; };
  if (changed_.wait_until(lock, question->asked + options_.timeout + options_.grace, isOver)) return;
  setAnswer(*question,
            failed(URLFailure::timedOut, "the " + backend_.name + " service gave no answer within " +
                                             std::to_string(options_.timeout.count()) + " s"));
}

void URLRun::write(const URLAnswer& answer) {
  summary_.add(answer);
  if (const std::string advice = backend_.advice(answer); !advice.empty()) advice_.insert(advice);
  progress_.clear();
  if (!output_.write([&] { report_->add(answer); })) stop();
}

void URLRun::showProgress(const std::string& url) {
  progress_.show([&] {
    return std::to_string(summary_.answeredURLs()) + " answered, " + std::to_string(outstanding_) +
           " under way  " + displayText(url);
  });
}

RunOutcome URLRun::conclude() {
  // As they are now: the backend may still answer.
  std::vector<std::optional<URLAnswer>> rest;
  NotAsked notAsked;
  int inputError = 0;
  {
    const std::lock_guard lock(mutex_);
    notAsked = notAsked_;
    inputError = inputError_;
    for (const QuestionPtr& question : questions_) rest.push_back(question->answer);
  }
  for (const std::optional<URLAnswer>& answer : rest) {
    if (answer)
      write(*answer);
    else
      summary_.addUnanswered();
  }
  progress_.clear();
  std::ostream& errors = streams_.errors;
  const RunOutcome outcome = output_.outcome(exitStatusAfterInput(summary_.exitStatus(), inputError), errors);
  if (outcome.outputClosed) return outcome;
  if (inputError != 0) errors << "qmr: " << tools::inputProblem(inputError) << '\n';
  for (const std::string& advice : advice_) errors << "qmr: " << displayText(advice) << '\n';
  if (!options_.quiet) errors << summary_.text() << notAsked.text() << '\n';
  errors << std::flush;
  return outcome;
}

}  // namespace qm::qmr
