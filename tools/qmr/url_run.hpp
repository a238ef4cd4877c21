// One run of "qmr url": asks the backend about URLs, several at once, and writes the answers in the order of
// the questions.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "tools/qmr/progress_line.hpp"
#include "tools/qmr/run.hpp"
#include "tools/qmr/summary.hpp"
#include "tools/qmr/url_answer.hpp"
#include "tools/qmr/url_backend.hpp"
#include "tools/qmr/url_options.hpp"
#include "tools/qmr/url_report.hpp"

namespace qm::qmr {

class URLRun : public std::enable_shared_from_this<URLRun> {
 public:
  // The streams outlive the run, and a feeder that is stuck.
  URLRun(URLOptions options, URLBackend backend, RunStreams streams, RunAppearance appearance);

  // Once. The object is held by a shared pointer.
  RunOutcome run();
  // Ends the run soon: what has an answer is written. Any thread.
  void stop();

 private:
  struct Question;
  using QuestionPtr = std::shared_ptr<Question>;
  class Reply;

  void feed();
  void feedFromInput();
  bool isStopped();
  bool ask(const std::string& url);
  void answered(Question& question, URLAnswer answer);
  void setAnswer(Question& question, URLAnswer answer);
  URLAnswer failed(URLFailure failure, std::string text) const;

  void writeAnswers();
  void waitForAnswer(const QuestionPtr& question, std::unique_lock<std::mutex>& lock);
  void write(const URLAnswer& answer);
  void showProgress(const std::string& url);
  RunOutcome conclude();

  const URLOptions options_;
  const URLBackend backend_;
  const RunStreams streams_;
  RunInput input_;  // of the feeder

  // Of the thread that runs:
  const std::unique_ptr<URLReport> report_;
  RunOutput output_;
  ProgressLine progress_;
  URLSummary summary_;
  std::set<std::string> advice_;

  std::mutex mutex_;
  std::condition_variable changed_;
  // Under mutex_:
  std::deque<QuestionPtr> questions_;  // asked and not written, the oldest first
  std::size_t outstanding_ = 0;        // of them, not answered
  NotAsked notAsked_;
  int inputError_ = 0;  // why standard input could not be read
  bool feederDone_ = false;
  bool stopped_ = false;
};

}  // namespace qm::qmr
