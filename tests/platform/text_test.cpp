#include "platform/text.hpp"

#include "support/testing.hpp"

namespace {

TEST(Text, CaseIsThatOfFullUnicode) {
  for (const auto& [text, expected] :
       {std::pair{"DOCX", "docx"}, {"ÄÖÜ", "äöü"}, {"ΣΑΣ", "σας"}, {"İ", "i\u0307"}})
    EXPECT_EQ(lowercaseString(text), expected);
  for (const auto& [a, b] :
       {std::pair{"straße", "STRASSE"}, {"é", "E\u0301"}, {"ΣΑΣ", "σασ"}, {"\u212A", "k"}})
    EXPECT_TRUE(equalsIgnoringCase(a, b) && equalsIgnoringCase(b, a)) << a << " " << b;
  for (const auto& [a, b] : {std::pair{"a", "b"}, {"a", "aa"}, {"e", "é"}, {"I", "ı"}})
    EXPECT_FALSE(equalsIgnoringCase(a, b)) << a << " " << b;
}

TEST(Text, IsOrderedByCodePointOfTheDecomposedForm) {
  // Each is less than the next.
  const std::vector<std::string> ascending{"", "A", "a", "aa", "e", "ez", "é", "f", "\uFFFD", "\U0001F600"};
  for (std::size_t i = 1; i < ascending.size(); ++i) {
    EXPECT_EQ(compareStrings(ascending[i - 1], ascending[i]), -1) << ascending[i];
    EXPECT_EQ(compareStrings(ascending[i], ascending[i - 1]), 1) << ascending[i];
  }
  EXPECT_EQ(compareStrings("é", "e\u0301"), 0);
}

TEST(RegularExpression, ReplacesEveryMatch) {
  const struct {
    const char* pattern;
    bool caseInsensitive;
    const char* text;
    const char* replacement;
    const char* expected;
    std::size_t count;
  } cases[] = {
      {"x*", false, "abc", "-", "-a-b-c-", 4},
      {"^/Users/[^/]+", true, "/users/bob/x", "%PROFILE%", "%PROFILE%/x", 1},
      {"^/Users/[^/]+", false, "/users/bob/x", "%PROFILE%", "/users/bob/x", 0},
      {"^a", false, "a\na", "b", "b\na", 1},
      {"a.b", false, "a\nb", "-", "a\nb", 0},
      {"(b)(c)", false, "abcd", "$2$1[$0]", "acb[bc]d", 1},
      {"b", false, "abc", "\\$0\\\\", "a$0\\c", 1},
      {"é", false, "caféé", "e", "cafee", 2},
      {"b", false, "abc", "$9", "abc", 0},
  };
  for (const auto& example : cases) {
    SCOPED_TRACE(example.pattern);
    const auto expression = RegularExpression::create(example.pattern, example.caseInsensitive);
    ASSERT_NE(expression, nullptr);
    std::size_t count = 99;
    EXPECT_EQ(expression->stringByReplacingMatches(example.text, example.replacement, count),
              example.expected);
    EXPECT_EQ(count, example.count);
  }
  EXPECT_EQ(RegularExpression::create("(*(", false), nullptr);
}

}  // namespace
