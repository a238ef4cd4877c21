#include "foundation/strings.hpp"

#include "support/testing.hpp"

namespace {

using testing::ElementsAre;

TEST(Paths, AreTakenApartWithoutLookingAtTheFileSystem) {
  const struct {
    const char *path, *last, *extension, *withoutExtension, *parent, *withExtensionQ;  // null: no result
    std::vector<std::string> components;
  } cases[] = {
      {"", "", "", "", "", nullptr, {}},
      {"/", "/", "", "/", "/", nullptr, {"/"}},
      {"///", "/", "", "/", "/", nullptr, {"/", "/"}},
      {"/a/b/", "b", "", "/a/b", "/a", "/a/b.q", {"/", "a", "b", "/"}},
      {".hidden", ".hidden", "", ".hidden", "", ".hidden.q", {".hidden"}},
      {"a.tar.gz", "a.tar.gz", "gz", "a.tar", "", "a.tar.gz.q", {"a.tar.gz"}},
      {"/a/./b/../c", "c", "", "/a/./b/../c", "/a/./b/..", "/a/./b/../c.q", {"/", "a", ".", "b", "..", "c"}},
      {"/x/app.zip//", "app.zip", "zip", "/x/app", "/x", "/x/app.zip.q", {"/", "x", "app.zip", "/"}},
      {"n.\u202Etxt", "n.\u202Etxt", "", "n.\u202Etxt", "", "n.\u202Etxt.q", {"n.\u202Etxt"}},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.path);
    EXPECT_EQ(lastPathComponent(expected.path), expected.last);
    EXPECT_EQ(pathExtension(expected.path), expected.extension);
    EXPECT_EQ(stringByDeletingPathExtension(expected.path), expected.withoutExtension);
    EXPECT_EQ(stringByDeletingLastPathComponent(expected.path), expected.parent);
    EXPECT_EQ(pathComponents(expected.path), expected.components);
    const std::optional<std::string> appended = stringByAppendingPathExtension(expected.path, "q");
    EXPECT_EQ(appended.value_or("(none)"), expected.withExtensionQ ? expected.withExtensionQ : "(none)");
  }
}

TEST(Paths, AreJoinedWithOneSlashAndStringsSeparatedAtEverySeparator) {
  EXPECT_EQ(stringByAppendingPathComponent("a", "/b"), "a/b");
  EXPECT_EQ(stringByAppendingPathComponent("a/", "b/"), "a/b");
  EXPECT_EQ(stringByAppendingPathComponent("/", "b"), "/b");
  EXPECT_EQ(stringByAppendingPathComponent("a/", ""), "a");
  EXPECT_THAT(componentsSeparatedByString(",a,", ","), ElementsAre("", "a", ""));
}

TEST(Strings, AreTrimmedOfUnicodeWhiteSpaceAtTheEndsOnly) {
  EXPECT_EQ(trimWhitespaceAndNewlines(" \t\r\n\v\fa b\u2028\u2029"), "a b");
  EXPECT_EQ(trimWhitespaceAndNewlines("\u00A0\u0085\u1680\u2000x\u200B\u202F\u205F\u3000"), "x");
  EXPECT_EQ(trimWhitespaceAndNewlines("\uFEFFx\u200C"), "\uFEFFx\u200C");
  // The last byte of "à" is that of a no-break space in Latin-1; a stray one is not white space either.
  EXPECT_EQ(trimWhitespaceAndNewlines("à "), "à");
  EXPECT_EQ(trimWhitespaceAndNewlines("\x80\x80\x80\x80\x80 "), "\x80\x80\x80\x80\x80");
}

TEST(Strings, IntegerValueReadsTheLeadingNumber) {
  const std::pair<const char*, std::int64_t> cases[] = {
      {"42abc", 42},
      {"  -7", -7},
      {"", 0},
      {"\uFF11\uFF12", 12},
      {"9223372036854775808", std::numeric_limits<std::int64_t>::max()},
      {"-99999999999999999999999", std::numeric_limits<std::int64_t>::min()},
  };
  for (const auto& [text, number] : cases) EXPECT_EQ(integerValue(text), number) << text;
}

TEST(Strings, IllFormedUTF8IsRecognisedAndReplaced) {
  EXPECT_TRUE(isValidUTF8("a\u00E9\u20AC\U0001F600"));
  EXPECT_TRUE(isValidUTF8("\xf4\x8f\xbf\xbf"));
  const std::pair<const char*, const char*> broken[] = {
      {"a\x80z", "a\uFFFDz"},                            // a stray continuation
      {"\xc0\xaf", "\uFFFD\uFFFD"},                      // overlong
      {"\xed\xa0\x80", "\uFFFD\uFFFD\uFFFD"},            // a surrogate
      {"\xf4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},  // above U+10FFFF
      {"\xf0\x9f\x98", "\uFFFD"},                        // cut short at the end
  };
  for (const auto& [text, replaced] : broken) {
    EXPECT_FALSE(isValidUTF8(text)) << testing::PrintToString(text);
    EXPECT_EQ(lossyUTF8(text), replaced) << testing::PrintToString(text);
  }
}

}  // namespace
