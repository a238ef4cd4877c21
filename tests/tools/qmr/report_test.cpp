// How answers look: safe text, table rows, JSON lines.

#include <nlohmann/json.hpp>

#include "support/testing.hpp"
#include "tools/qmr/display_text.hpp"
#include "tools/qmr/json_report.hpp"
#include "tools/qmr/table_report.hpp"

using namespace qm::qmr;

namespace {

ReputationAnswer answered(std::string path, ReputationVerdict verdict) {
  ReputationAnswer answer;
  answer.path = std::move(path);
  answer.verdict = verdict;
  return answer;
}

TEST(DisplayText, NothingOfANameReachesTheTerminalAsACommand) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"gr\xc3\xbc\xc3\x9f \xe6\xbc\xa2", "gr\xc3\xbc\xc3\x9f \xe6\xbc\xa2"},
      {"two\nlines\r\t", "two\\nlines\\r\\t"},
      {"\x1b[31mred\x1b[0m", "\\e[31mred\\e[0m"},
      {std::string("nul\0", 4), "nul\\x00"},
      {"csi\xc2\x9b"
       "1m",
       "csi\\u{9b}1m"},
      {"\xe2\x80\xaegpj.exe", "\\u{202e}gpj.exe"},
      {"\xe2\x80\xa8line\xef\xbb\xbf", "\\u{2028}line\\u{feff}"},
      {"bad\xff\xc3(", "bad\\xff\\xc3("},
      {"back\\slash\\n", "back\\\\slash\\\\n"},
  };
  for (const auto& [text, display] : cases) EXPECT_EQ(displayText(text), display);
}

TEST(TableReport, NamesAndPathsCannotFakeARow) {
  std::ostringstream output;
  TableReport report(output, {});
  ReputationAnswer answer = answered("/a\ntrusted  /b", ReputationVerdict::untrusted);
  answer.infectionName = "X\n\x1b[2J";
  report.add(answer);
  const std::string text = output.str();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << "the head and the row";
  EXPECT_EQ(text.find('\x1b'), std::string::npos);
}

TEST(JsonReport, EachAnswerIsOneObjectOnOneLine) {
  std::ostringstream output;
  JsonReport report(output);
  ReputationAnswer bad = answered("/a \"quoted\"\n\x1b", ReputationVerdict::untrusted);
  bad.ttl = -1;
  bad.infectionName = std::string("Virus\xff");
  report.add(bad);
  report.add(answered("/b\xff", ReputationVerdict::unknown));
  std::istringstream lines(output.str());
  std::string first, second;
  std::getline(lines, first);
  std::getline(lines, second);
  const auto object = nlohmann::json::parse(first);
  EXPECT_EQ(object["path"], "/a \"quoted\"\n\x1b");
  EXPECT_EQ(object["level"], 0);
  EXPECT_EQ(object["ttl"], -1);
  EXPECT_EQ(object["infectionName"], "Virus\xef\xbf\xbd");
  EXPECT_EQ(nlohmann::json::parse(second)["pathBase64"], "L2L/");
}

}  // namespace
