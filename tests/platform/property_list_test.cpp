#include "platform/property_list.hpp"

#include "support/testing.hpp"

namespace {

std::optional<Value> parse(const std::string& text, ErrorPtr* error = nullptr) {
  return parsePropertyList(text.data(), text.size(), error);
}

std::optional<Value> parseXML(const std::string& body) {
  return parse("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + body + "</plist>\n");
}

std::string bigEndian(std::uint64_t number, std::size_t size) {
  std::string bytes;
  for (std::size_t i = size; i > 0; --i) bytes.push_back(static_cast<char>(number >> (8 * (i - 1)) & 0xFF));
  return bytes;
}

// A binary list of the objects, each with its marker; the first is the top.
std::string binaryList(const std::vector<std::string>& objects, std::size_t offsetSize = 2,
                       std::size_t referenceSize = 1) {
  std::string result = "bplist00";
  std::string table;
  for (const std::string& object : objects) {
    table += bigEndian(result.size(), offsetSize);
    result += object;
  }
  const std::size_t start = result.size();
  return result + table + std::string(6, '\0') + bigEndian(offsetSize, 1) + bigEndian(referenceSize, 1) +
         bigEndian(objects.size(), 8) + bigEndian(0, 8) + bigEndian(start, 8);
}

using namespace std::literals;

TEST(BinaryPropertyList, EveryTypeMayBeTheTop) {
  const std::pair<std::vector<std::string>, Value> cases[] = {
      {{"\x09"s}, true},
      {{"\x10\xff"s}, 255},
      {{"\x13\xff\xff\xff\xff\xff\xff\xff\xfe"s}, -2},
      {{"\x14\0\0\0\0\0\0\0\0\xff\xff\xff\xff\xff\xff\xff\xfe"s}, UINT64_MAX - 1},
      {{"\x23\xc0\x04\0\0\0\0\0\0"s}, -2.5},
      {{"\x33\xbf\xf8\0\0\0\0\0\0"s}, Date{978'307'198'500'000'000}},
      {{"\x33\x41\xe0\0\0\0\0\0\0"s}, Date{(978'307'200 + 2'147'483'648) * 1'000'000'000}},
      {{"\x42\0\xff"s}, Data("\0\xff", 2)},
      {{"\x62\xd8\x3d\xde\0"s}, "\U0001F600"},
      {{"\x5f\x10\x14"s + std::string(20, 'x')}, std::string(20, 'x')},
      {{"\xa2\1\1"s, "\x51x"s}, Array{"x", "x"}},
      {{"\xd2\1\1\2\3"s, "\x51k"s, "\x10\7"s, "\x10\x8"s}, Dictionary{{"k", 7}}},
  };
  for (const auto& [objects, expected] : cases)
    EXPECT_EQ(parse(binaryList(objects)), expected) << expected.description();
  for (const std::size_t size : {1U, 2U, 3U, 4U, 8U})
    EXPECT_EQ(parse(binaryList({"\xa1"s + bigEndian(1, size), "\x51x"s}, size, size)), Value(Array{"x"}));
}

// Every one of these has to be refused; what the daemon would do with a fault the sanitizers show.
TEST(BinaryPropertyList, DamagedStructureIsRefused) {
  const std::string whole = binaryList({"\xd1\1\2"s, "\x51k"s, "\xa1\1"s});
  ASSERT_TRUE(parse(whole));
  for (std::size_t length = 9; length < whole.size(); ++length)
    EXPECT_FALSE(parse(whole.substr(0, length))) << length;
  // What stands so many bytes before the end, replaced.
  const auto spoilt = [&](std::size_t fromEnd, std::string_view bytes) {
    return std::string(whole).replace(whole.size() - fromEnd, bytes.size(), bytes);
  };
  const std::pair<const char*, std::string> cases[] = {
      {"header", spoilt(whole.size(), "bplist10")},
      {"trailing garbage", whole + "x"},
      {"offset into the header", spoilt(34, "\0\7"sv)},
      {"offset size 0", spoilt(26, "\0"sv)},
      {"reference size 0", spoilt(25, "\0"sv)},
      {"huge count", spoilt(24, "\x80")},
      {"top beyond 32 bits", spoilt(13, "\1")},
      {"table wraps", spoilt(8, "\xff\xff\xff\xff\xff\xff\xff\xf0")},
      {"cut string", binaryList({"\x5f\x10\x40x"s})},
      {"count wraps", binaryList({"\x6f\x13\x80\0\0\0\0\0\0\1"s})},
      {"count of another type", binaryList({"\x5f\x51\1x"s})},
      {"cycle", binaryList({"\xa1\1"s, "\xd1\2\0"s, "\x51k"s})},
      {"key of an array", binaryList({"\xd1\1\1"s, "\xa0"s})},
      {"date that is no number", binaryList({"\x33\x7f\xf8\0\0\0\0\0\0"s})},
  };
  for (const auto& [name, bytes] : cases) {
    ErrorPtr error;
    EXPECT_EQ(parse(bytes, &error), std::nullopt) << name;
    EXPECT_TRUE(error != nullptr && error->code() == 3840) << name;
  }
}

TEST(BinaryPropertyList, DepthAndSharingAreBounded) {
  std::vector<std::string> nested{"\xa0"s};
  for (std::size_t i = 127; i > 0; --i) nested.insert(nested.begin(), "\xa1"s + bigEndian(i, 1));
  EXPECT_TRUE(parse(binaryList(nested)));
  nested.insert(nested.end() - 1, "\xa1\x80"s);
  EXPECT_FALSE(parse(binaryList(nested)));

  // Thirty arrays of twice the next one would be a thousand million objects.
  std::vector<std::string> doubled;
  for (char i = 1; i <= 30; ++i) doubled.push_back("\xa2"s + i + i);
  doubled.push_back("\xa0"s);
  EXPECT_FALSE(parse(binaryList(doubled)));
  // A text of 16 KiB, referred to by all of an array.
  const std::string array = "\xaf\x11\xff\xff" + std::string(65535, '\1');
  EXPECT_FALSE(parse(binaryList({array, "\x5f\x11\x40\0"s + std::string(16384, 'x')}, 4)));
}

TEST(XMLPropertyList, Values) {
  const std::pair<const char*, Value> cases[] = {
      {"<integer>18446744073709551615</integer>", UINT64_MAX},
      {"<date>2023-10-19T03:12:17Z</date>", Date{1'697'685'137'000'000'000}},
      {"<date>4001-01-01T00:00:00Z</date>", Date{9'223'372'036'000'000'000}},
      {"<data>aGVs bG8=</data>", Data("hello", 5)},
      {"<string>a &amp; <![CDATA[<b>]]> é</string>", "a & <b> é"},
      {"<!-- note --><dict><key>b</key><string>1</string><key>a</key><integer>2</integer></dict>",
       Dictionary{{"a", 2}, {"b", "1"}}},
  };
  for (const auto& [body, expected] : cases) EXPECT_EQ(parseXML(body), expected) << body;
}

std::string repeated(std::string_view part, int times) {
  std::string result;
  for (int i = 0; i < times; ++i) result += part;
  return result;
}

TEST(XMLPropertyList, DamagedAndExcessiveTextIsRefused) {
  EXPECT_TRUE(parseXML(repeated("<array>", 127) + repeated("</array>", 127)));
  const std::string cases[] = {
      "<array><string>a</string>",
      "<string>\xff</string>",
      "<string>a\0b</string>"s,
      repeated("<array>", 129) + repeated("</array>", 129),
      repeated("<array><!-- </array> -->", 200) + repeated("</array>", 200),
      repeated("<array>", 1'000'000),
  };
  for (const std::string& body : cases) EXPECT_EQ(parseXML(body), std::nullopt) << body.substr(0, 60);
}

TEST(PropertyList, OtherBytesAreAnUnquotedStringOrAnError) {
  EXPECT_EQ(parse(" a_b/c:d.e-$1 \n"), Value("a_b/c:d.e-$1"));
  EXPECT_EQ(parse(" \n\t"), Value(Dictionary()));
  const std::pair<std::string, const char*> failures[] = {
      {"", "Cannot parse a NULL or zero-length data"},
      {"\n\n\"x", "Unexpected character \" at line 3"},
      {"<plist>", "Encountered improper XML at line 1"},
  };
  for (const auto& [bytes, text] : failures) {
    ErrorPtr error;
    EXPECT_EQ(parse(bytes, &error), std::nullopt);
    ASSERT_NE(error, nullptr);
    const std::string* const debug = find<std::string>(error->userInfo(), kDebugDescriptionKey);
    ASSERT_NE(debug, nullptr);
    EXPECT_EQ(*debug, text);
  }
}

}  // namespace
