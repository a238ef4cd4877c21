// The rules that samples are examined with: YARA rule files (https://yara.readthedocs.io), compiled once.
// Used by the Skyvault agent and the Wisp core daemon.
//
// A rule says in its meta data what a match means: `verdict` ("malicious", "unwanted" or "pu") and `name`,
// the infection name (the rule's identifier when there is none). Private rules are helpers and need neither.
// No rule file reads another: `include` is a mistake.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/error.hpp"

namespace qm {

inline constexpr const char* kSampleRulesErrorDomain = "com.quillmarsh.SampleRules";

enum class SampleRulesError : std::int64_t {
  timedOut = 1,        // the sample took longer than the limit
  tooManyMatches = 2,  // a string of a rule occurs without end
  failed = 3,          // anything else, the text says what
};

// One rule file's text; the name is for messages and keeps equal rule names of two files apart.
struct SampleRuleSource {
  std::string name;
  std::string text;
};

// A source that was left out.
struct RejectedRules {
  std::string name;
  std::string reason;  // with the line of the first mistake, but for what is wrong with the whole file
};

struct SampleFinding {
  std::string verdict;  // a safety verdict value
  std::string infectionName;

  friend bool operator==(const SampleFinding&, const SampleFinding&) = default;
};

class SampleRules {
 public:
  // Bytes; a larger rule file is left out.
  static constexpr std::uintmax_t kMaximumFileSize = 4 << 20;

  // A source with a mistake is left out, with the reason in `rejected`; the others still count. Null with
  // kSampleRulesErrorDomain only when the rule library fails as such. No sources make rules that find
  // nothing.
  static std::shared_ptr<const SampleRules> compile(const std::vector<SampleRuleSource>& sources,
                                                    std::vector<RejectedRules>* rejected = nullptr,
                                                    ErrorPtr* error = nullptr);
  // All *.yar and *.yara files of the folder, by name. Of a folder that cannot be read, or is not there,
  // none, and the folder itself is what is unreadable.
  static std::vector<SampleRuleSource> readFolder(const std::string& folder,
                                                  std::vector<RejectedRules>& unreadable);
  ~SampleRules();
  SampleRules(const SampleRules&) = delete;
  SampleRules& operator=(const SampleRules&) = delete;

  // Rules that can match; private ones are not counted.
  std::size_t count() const { return count_; }

  // The worst of all matches (malicious before unwanted before pu, then the first in the order of the rules);
  // nothing when none matches or, with an error set, when the sample was not examined to its end. The bytes
  // are the caller's own memory and do not change meanwhile. The limit is kept to the second, at least one.
  // Any thread, also several.
  std::optional<SampleFinding> scan(const void* bytes, std::size_t length, std::chrono::seconds limit,
                                    ErrorPtr* error = nullptr) const;

 private:
  struct Compiled;
  SampleRules(std::unique_ptr<Compiled> compiled, std::size_t count);

  const std::unique_ptr<Compiled> compiled_;
  const std::size_t count_;
};

}  // namespace qm
