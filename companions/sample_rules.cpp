#include "companions/sample_rules.hpp"

#include <yara.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <map>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>

#include "companions/verdict_store.hpp"
#include "foundation/strings.hpp"
#include "platform/SVKSkyvaultServiceClientProtocol.hpp"
#include "platform/file_io.hpp"

namespace qm {

namespace {

// The verdicts a rule may give, the worst first.
constexpr std::array<std::string_view, 3> kRuleVerdicts = {SVKSkyvaultSafetyVerdictValueMalicious,
                                                           SVKSkyvaultSafetyVerdictValueUnwanted,
                                                           SVKSkyvaultSafetyVerdictValuePU};

void fail(ErrorPtr* error, SampleRulesError code, std::string text) {
  setError(error, makeError(kSampleRulesErrorDomain, static_cast<std::int64_t>(code),
                            {{kLocalizedDescriptionKey, std::move(text)}}));
}

// The library keeps process-wide tables; it is started once and never stopped, since scans may still run at
// exit.
int libraryStatus() {
  static const int status = yr_initialize();
  return status;
}

struct DestroyCompiler {
  void operator()(YR_COMPILER* compiler) const { yr_compiler_destroy(compiler); }
};
struct DestroyRules {
  void operator()(YR_RULES* rules) const { yr_rules_destroy(rules); }
};
struct DestroyScanner {
  void operator()(YR_SCANNER* scanner) const { yr_scanner_destroy(scanner); }
};
using Compiler = std::unique_ptr<YR_COMPILER, DestroyCompiler>;
using Rules = std::unique_ptr<YR_RULES, DestroyRules>;
using Scanner = std::unique_ptr<YR_SCANNER, DestroyScanner>;

std::optional<std::string_view> metaText(const YR_RULE* rule, std::string_view key) {
  const YR_META* meta = nullptr;
  yr_rule_metas_foreach(rule, meta) {
    if (meta->type == META_TYPE_STRING && meta->identifier == key) return std::string_view(meta->string);
  }
  return std::nullopt;
}

// The rank of the rule's verdict, the worst 0; kRuleVerdicts.size() when it says none that a rule may give.
std::size_t verdictRank(const YR_RULE* rule) {
  const std::string_view verdict = metaText(rule, "verdict").value_or("");
  return static_cast<std::size_t>(std::find(kRuleVerdicts.begin(), kRuleVerdicts.end(), verdict) -
                                  kRuleVerdicts.begin());
}

// The first mistake that the compiler tells of.
void keepFirstError(int level, const char*, int line, const YR_RULE*, const char* message, void* context) {
  std::string& text = *static_cast<std::string*>(context);
  if (level == YARA_ERROR_LEVEL_ERROR && text.empty())
    text = "line " + std::to_string(line) + ": " + (message == nullptr ? "mistake" : message);
}

using Sources = std::vector<const SampleRuleSource*>;
using Mistakes = std::map<const SampleRuleSource*, std::string>;  // why a source cannot be used

// The rules are null on a mistake of grammar, which ends the compiler's use, and when the library fails.
// Other mistakes are those of all sources.
struct Attempt {
  Rules rules;
  Mistakes mistakes;
};

// Why a match of the rule could not be told of; empty when it can.
std::string_view mistakeInMeta(const YR_RULE* rule) {
  if (RULE_IS_PRIVATE(rule)) return {};
  if (verdictRank(rule) == kRuleVerdicts.size()) return "says no verdict of malicious, unwanted or pu";
  if (!isRecordText(metaText(rule, "name").value_or("")))
    return "has a name of more than 255 bytes, with control characters or not UTF-8";
  return {};
}

// "line N: " where a line of the text begins with the rule; empty when none does. The compiled rule does not
// know its line.
std::string lineOfRule(const std::string& text, const std::string& name) {
  std::istringstream lines(text);
  std::string line;
  for (std::size_t number = 1; std::getline(lines, line); ++number) {
    std::istringstream words(line);
    std::string word;
    while (words >> word && (word == "private" || word == "global")) {
    }
    if (word == "rule" && words >> word && word.substr(0, word.find_first_of(":{")) == name)
      return "line " + std::to_string(number) + ": ";
  }
  return {};
}

// A rule that could match without saying what that means makes its source a mistaken one.
void noteRulesOfNoUse(const Sources& sources, Attempt& attempt) {
  std::map<std::string_view, const SampleRuleSource*> byName;
  for (const SampleRuleSource* source : sources) byName.emplace(source->name, source);
  const YR_RULE* rule = nullptr;
  yr_rules_foreach(attempt.rules.get(), rule) {
    const std::string_view mistake = mistakeInMeta(rule);
    const auto source = mistake.empty() ? byName.end() : byName.find(rule->ns->name);
    if (source == byName.end() || attempt.mistakes.contains(source->second)) continue;
    attempt.mistakes.emplace(source->second, lineOfRule(source->second->text, rule->identifier) + "rule " +
                                                 rule->identifier + " " + std::string(mistake));
  }
}

// Compiles the sources together.
Attempt attemptCompile(const Sources& sources) {
  Attempt attempt;
  YR_COMPILER* created = nullptr;
  if (yr_compiler_create(&created) != ERROR_SUCCESS) return attempt;
  const Compiler compiler(created);
  std::string reason;
  yr_compiler_set_callback(created, keepFirstError, &reason);
  yr_compiler_set_include_callback(created, nullptr, nullptr, nullptr);  // no rule file reads another
  for (const SampleRuleSource* source : sources) {
    const bool isText =
        source->text.find('\0') == std::string::npos;  // else the half before it would be taken
    if (isText && yr_compiler_add_string(created, source->text.c_str(), source->name.c_str()) == 0) continue;
    if (reason.empty()) reason = isText ? "mistake" : "not a text";
    attempt.mistakes.emplace(source, std::move(reason));
    return attempt;
  }
  YR_RULES* rules = nullptr;
  if (yr_compiler_get_rules(created, &rules) != ERROR_SUCCESS) return attempt;
  attempt.rules.reset(rules);
  noteRulesOfNoUse(sources, attempt);
  return attempt;
}

// The same, with the mistakes of all sources in any case: none depends on another, so that each is tried
// alone where they do not compile together. Rather that once than all of them anew for each mistake.
Attempt attemptWithAllMistakes(const Sources& sources) {
  Attempt attempt = attemptCompile(sources);
  if (attempt.rules != nullptr) return attempt;
  for (const SampleRuleSource* source : sources) attempt.mistakes.merge(attemptCompile({source}).mistakes);
  return attempt;
}

struct Matches {
  std::size_t rank = kRuleVerdicts.size();
  std::string name;
  bool tooMany = false;
};

int noteMatch(YR_SCAN_CONTEXT*, int message, void* data, void* context) {
  Matches& matches = *static_cast<Matches*>(context);
  if (message == CALLBACK_MSG_TOO_MANY_MATCHES) {
    matches.tooMany = true;
    return CALLBACK_CONTINUE;
  }
  if (message != CALLBACK_MSG_RULE_MATCHING) return CALLBACK_CONTINUE;
  const auto* rule = static_cast<const YR_RULE*>(data);
  const std::size_t rank = verdictRank(rule);
  if (rank >= matches.rank) return CALLBACK_CONTINUE;
  matches.rank = rank;
  matches.name = std::string(metaText(rule, "name").value_or(rule->identifier));
  return CALLBACK_CONTINUE;
}

std::vector<std::string> ruleFilesIn(const std::string& folder, std::error_code& failure) {
  namespace fs = std::filesystem;
  std::vector<std::string> files;
  for (fs::directory_iterator entry(folder, failure), end; !failure && entry != end; entry.increment(failure))
    if (entry->path().extension() == ".yar" || entry->path().extension() == ".yara")
      files.push_back(entry->path().string());
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

struct SampleRules::Compiled {
  Rules rules;
};

SampleRules::SampleRules(std::unique_ptr<Compiled> compiled, std::size_t count)
    : compiled_(std::move(compiled)), count_(count) {}

SampleRules::~SampleRules() = default;

std::shared_ptr<const SampleRules> SampleRules::compile(const std::vector<SampleRuleSource>& sources,
                                                        std::vector<RejectedRules>* rejected,
                                                        ErrorPtr* error) {
  if (const int status = libraryStatus(); status != ERROR_SUCCESS) {
    fail(error, SampleRulesError::failed, "The rule library does not start: " + std::to_string(status) + ".");
    return nullptr;
  }
  Sources remaining;
  for (const SampleRuleSource& source : sources) remaining.push_back(&source);
  for (;;) {
    Attempt attempt = attemptWithAllMistakes(remaining);
    if (!attempt.mistakes.empty()) {
      for (const auto& [source, reason] : attempt.mistakes)
        if (rejected != nullptr) rejected->push_back({source->name, reason});
      std::erase_if(remaining,
                    [&](const SampleRuleSource* source) { return attempt.mistakes.contains(source); });
      continue;
    }
    if (attempt.rules == nullptr) {
      fail(error, SampleRulesError::failed, "The sample rules cannot be compiled.");
      return nullptr;
    }
    std::size_t count = 0;
    const YR_RULE* rule = nullptr;
    yr_rules_foreach(attempt.rules.get(), rule) {
      count += RULE_IS_PRIVATE(rule) ? 0 : 1;
    }
    auto compiled = std::make_unique<Compiled>(Compiled{std::move(attempt.rules)});
    return std::shared_ptr<const SampleRules>(new SampleRules(std::move(compiled), count));
  }
}

std::vector<SampleRuleSource> SampleRules::readFolder(const std::string& folder,
                                                      std::vector<RejectedRules>& unreadable) {
  std::error_code failure;
  const std::vector<std::string> files = ruleFilesIn(folder, failure);
  if (failure) {
    unreadable.push_back({folder, failure.message()});
    return {};
  }
  std::vector<SampleRuleSource> sources;
  for (const std::string& file : files) {
    FileStatus status;
    if (!statPath(file.c_str(), status) || !status.isRegularFile ||
        static_cast<std::uintmax_t>(status.size) > kMaximumFileSize) {
      unreadable.push_back({file, "not a regular file of at most 4 MiB"});
      continue;
    }
    ErrorPtr readError;
    std::optional<std::string> text = readTextFile(file, &readError);
    if (text)
      sources.push_back({file, std::move(*text)});
    else
      unreadable.push_back(
          {file, readError == nullptr ? "cannot be read" : readError->localizedDescription()});
  }
  return sources;
}

std::optional<SampleFinding> SampleRules::scan(const void* bytes, std::size_t length,
                                               std::chrono::seconds limit, ErrorPtr* error) const {
  YR_SCANNER* created = nullptr;
  if (yr_scanner_create(compiled_->rules.get(), &created) != ERROR_SUCCESS) {
    fail(error, SampleRulesError::failed, "No memory for examining a sample.");
    return std::nullopt;
  }
  const Scanner scanner(created);
  Matches matches;
  yr_scanner_set_callback(created, noteMatch, &matches);
  yr_scanner_set_timeout(created, static_cast<int>(std::clamp<std::int64_t>(limit.count(), 1, 86400)));
  // The memory is ours, so the library needs no handler for bus errors, which would be the process's.
  yr_scanner_set_flags(created,
                       SCAN_FLAGS_FAST_MODE | SCAN_FLAGS_NO_TRYCATCH | SCAN_FLAGS_REPORT_RULES_MATCHING);
  const int status = yr_scanner_scan_mem(created, static_cast<const std::uint8_t*>(bytes), length);
  // What matched before a failure counts all the same, but "nothing found" needs a scan to the end.
  if (matches.rank < kRuleVerdicts.size())
    return SampleFinding{std::string(kRuleVerdicts[matches.rank]), lossyUTF8(matches.name)};
  if (status == ERROR_SCAN_TIMEOUT)
    fail(error, SampleRulesError::timedOut, "Examining the sample took too long.");
  else if (status == ERROR_TOO_MANY_MATCHES || matches.tooMany)
    fail(error, SampleRulesError::tooManyMatches, "A rule's string occurs too often in the sample.");
  else if (status != ERROR_SUCCESS)
    fail(error, SampleRulesError::failed, "Examining the sample failed: " + std::to_string(status) + ".");
  return std::nullopt;
}

}  // namespace qm
