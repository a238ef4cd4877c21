#include "foundation/value.hpp"

#include "foundation/error.hpp"
#include "support/testing.hpp"

namespace {

Data bytesUpTo(std::uint8_t length) {
  std::vector<std::uint8_t> bytes(length);
  std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
  return Data(std::move(bytes));
}

TEST(ValueDescription, ScalarsPrintAsTheyStand) {
  const std::pair<Value, const char*> cases[] = {
      {Null(), "<null>"},
      {true, "1"},
      {std::numeric_limits<std::int64_t>::min(), "-9223372036854775808"},
      {std::numeric_limits<std::uint64_t>::max(), "18446744073709551615"},
      // The shortest text that reads back.
      {1e16, "1e+16"},
      {5e-324, "5e-324"},
      {-INFINITY, "-inf"},
      {0.1 + 0.2, "0.30000000000000004"},
      // Whole seconds, in UTC.
      {Date{1697685137'999999999}, "2023-10-19 03:12:17 +0000"},
      {Date{-1}, "1969-12-31 23:59:59 +0000"},
      {bytesUpTo(24), "{length = 24, bytes = 0x000102030405060708090a0b0c0d0e0f1011121314151617}"},
      {bytesUpTo(25), "{length = 25, bytes = 0x00010203 04050607 08090a0b 0c0d0e0f ... 11121314 15161718 }"},
  };
  for (const auto& [value, text] : cases) EXPECT_EQ(value.description(), text);
}

TEST(ValueDescription, CollectionsHaveTheOldStylePropertyListLayout) {
  const Dictionary dictionary{{"n", Dictionary{{"a", 1}}}, {"a", 1}, {"l", Array{1, 2}}};
  EXPECT_EQ(description(dictionary),
            "{\n"
            "    a = 1;\n"
            "    l =     (\n"
            "        1,\n"
            "        2\n"
            "    );\n"
            "    n =     {\n"
            "        a = 1;\n"
            "    };\n"
            "}");
  EXPECT_EQ(description(Dictionary()), "{\n}");
}

TEST(ValueDescription, WordsInCollectionsAreQuotedUnlessTheyAreLettersAndDigits) {
  const std::pair<Value, const char*> cases[] = {
      {"", "\"\""},
      {"q\"b\\", "\"q\\\"b\\\\\""},
      {"l\nt\tr\r", "\"l\\nt\\tr\\r\""},
      {"\x1b[0m", "\"\\033[0m\""},
      {"don\u2019t", "\"don\\U2019t\""},
      {"\U0001F600", "\"\\Ud83d\\Ude00\""},
      {"\xff", "\"\\Ufffd\""},
      {-1, "\"-1\""},
      {Date{0}, "\"1970-01-01 00:00:00 +0000\""},
  };
  for (const auto& [value, text] : cases)
    EXPECT_EQ(description(Array{value}), "(\n    " + std::string(text) + "\n)");
  EXPECT_EQ(description(Dictionary{{"a-b", 1}}), "{\n    \"a-b\" = 1;\n}");
}

TEST(ValueEquality, TellsTypesApartAndComparesErrorsByContent) {
  EXPECT_NE(Value(std::int64_t{1}), Value(std::uint64_t{1}));
  EXPECT_NE(Value(true), Value(1));
  EXPECT_EQ(Value(Array{makeError("D", 1)}), Value(Array{makeError("D", 1)}));
  EXPECT_NE(Value(makeError("D", 1)), Value(makeError("D", 1, {{"k", 1}})));
}

TEST(ValueNumbers, ConvertWithoutUndefinedBehaviour) {
  EXPECT_EQ(Value(-2.9).integerValue(), -2);
  EXPECT_EQ(Value(1e19).integerValue(), 0);
  EXPECT_EQ(Value(std::nan("")).integerValue(), 0);
}

}  // namespace
