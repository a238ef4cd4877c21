// One run of "qmr check": feeds the client with files, writes the answers as they come, and keeps the counts.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

#include "client/reputation_client.hpp"
#include "platform/regular_file.hpp"
#include "tools/qmr/command_line.hpp"
#include "tools/qmr/progress_line.hpp"
#include "tools/qmr/report.hpp"
#include "tools/qmr/run.hpp"
#include "tools/qmr/summary.hpp"

namespace qm::qmr {

class CheckRun : public std::enable_shared_from_this<CheckRun> {
 public:
  // The streams outlive the run, and a feeder that is stuck.
  CheckRun(CheckOptions options, ReputationClientOptions clientOptions, RunStreams streams,
           RunAppearance appearance);

  // Once. The object is held by a shared pointer.
  RunOutcome run();
  // Ends the run soon: what has an answer stays counted. Any thread.
  void stop();

 private:
  struct File;
  using FilePtr = std::shared_ptr<File>;

  void feed();
  void feedFromInput();
  bool isStopped();
  bool isCutShort();
  void walk(const std::string& path);
  void ask(const std::string& path, SymbolicLinks links);
  void couldNotLook(const std::string& path, ReputationFailure failure, const std::string& text);
  void answered(const FilePtr& file, ReputationAnswer answer);
  void answeredLater(const FilePtr& file, ReputationAnswer answer);
  void waitForAnswers();
  void write(const ReputationAnswer& answer);
  void showProgress(const std::string& path);
  RunOutcome conclude();

  const CheckOptions options_;
  const RunStreams streams_;
  const std::unique_ptr<Report> report_;
  const std::size_t askedAtOnce_;
  RunInput input_;  // of the feeder

  std::mutex mutex_;
  std::condition_variable changed_;
  // Under mutex_:
  RunOutput output_;
  ProgressLine progress_;
  Summary summary_;
  NotAsked notAsked_;
  int inputError_ = 0;           // why standard input could not be read
  std::size_t outstanding_ = 0;  // asked, not answered
  std::size_t answeredFiles_ = 0;
  std::size_t awaitingDelayed_ = 0;  // files whose delayed answer may still come
  std::size_t missedDelayed_ = 0;    // whose delayed answer did not come in time
  std::size_t lostDelayed_ = 0;      // whose delayed answer cannot come any more
  bool feederDone_ = false;
  bool stopped_ = false;
  std::string serviceError_;  // why there is no service

  // The last member: its answers use all the others until it is gone.
  ReputationClient client_;
};

}  // namespace qm::qmr
