// The sample rules of an installation's folder, which a person may edit at any time: a change is followed
// while the program runs. Of a file in which there is a mistake now, what it said before stays in use, and so
// do all rules when the folder cannot be read or is gone. A file of the folder may be a symbolic link; what
// is edited behind it is noticed with the next change in the folder.
#pragma once

#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "companions/sample_rules.hpp"
#include "platform/digest.hpp"
#include "platform/file_watcher.hpp"

namespace qm {

// Absolute, before the namespace and the system root.
inline constexpr std::string_view kSampleRulesProductPath = "/Library/Quillmarsh/qxmac/rules";

class LiveSampleRules {
 public:
  // Gets every set of rules that differs from the one before, and the time (seconds since 1970) up to which
  // samples may have been examined with others. Runs on threads of its own, one call after the other.
  using Observer = std::function<void(std::shared_ptr<const SampleRules> rules, std::int64_t changed)>;

  // Compiles what is there, then follows the folder. The observer has the first set when the constructor
  // returns, but for rules that take more than ten seconds to compile and for a folder that cannot be read.
  // The path is that of the file system, absolute.
  LiveSampleRules(std::string folder, Observer observer);
  // The observer has returned for the last time then.
  ~LiveSampleRules();
  LiveSampleRules(const LiveSampleRules&) = delete;
  LiveSampleRules& operator=(const LiveSampleRules&) = delete;

 private:
  void reload();
  void complainOfFolder(const std::string& reason);
  static void complain(const RejectedRules& file, bool hadGoodOnes);
  // False when the rule library failed; the rules in use stay.
  bool compile(std::vector<SampleRuleSource> sources);
  std::int64_t changeTime() const;

  const std::string folder_;
  const Observer observer_;
  std::map<std::string, SHA256Value> read_;        // of each file when the folder was looked at last
  std::map<std::string, std::string> inUse_;       // the text by the name of each file
  std::map<std::string, std::string> unreadable_;  // why, by the name of each file, or of the folder
  bool isFirst_ = true;
  std::unique_ptr<FileWatcher> watcher_;
  std::future<void> start_;  // goes first: it still sets what stands above
};

}  // namespace qm
