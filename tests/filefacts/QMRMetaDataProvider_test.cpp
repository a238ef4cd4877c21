#include "filefacts/QMRMetaDataProvider.hpp"

#include <sys/xattr.h>

#include "platform/file_io.hpp"
#include "support/testing.hpp"

namespace {

using MetaDataProvider = RecordedTest;

using namespace std::string_literals;

// The rendered value of the attribute, or a null pointer when it was left out.
const Value* valueOf(const Array& attributes, std::string_view name) {
  for (const Value& attribute : attributes) {
    const auto* const record = attribute.as<Dictionary>();
    if (record != nullptr && *find<std::string>(*record, "attribute") == name) return find(*record, "value");
  }
  return nullptr;
}

// A binary list: { "a b" = ( 1, "x y" ); }.
std::string dictionaryList() {
  return "bplist00\xd1\1\2\x53"
         "a b\xa2\3\4\x10\1\x53x y\x08\x0b\x0f\x12\x14"s +
         "\0\0\0\0\0\0\1\1\0\0\0\0\0\0\0\5"s + "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x18"s;
}

// Binary lists: ( "a b", 1 ), and the number 1.
std::string arrayList() {
  return "bplist00\xa2\1\2\x53"
         "a b\x10\1\x08\x0b\x0f"s +
         "\0\0\0\0\0\0\1\1\0\0\0\0\0\0\0\3"s + "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x11"s;
}
std::string numberList() {
  return "bplist00\x10\1\x08"s + "\0\0\0\0\0\0\1\1\0\0\0\0\0\0\0\1"s + "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x0a"s;
}

TEST_F(MetaDataProvider, TimesByPathAndByDescriptor) {
  const std::string path = folder.write("f", "x");
  const std::array<timespec, 2> times{timespec{1'500'000'000, 999'999'999}, timespec{1'400'000'000, 1}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
  const FileDescriptor file = openForReading(path.c_str());
  for (const Dictionary& info : {QMRMetaDataProvider::fileInfoForPath(path.c_str()),
                                 QMRMetaDataProvider::fileInfoForFiledescriptor(file.get()),
                                 QMRMetaDataProvider::fileInfoForPath(path.c_str(), -1)}) {
    EXPECT_EQ(info.at("accessed"), Value(1'500'000'000));
    EXPECT_EQ(info.at("modified"), Value(1'400'000'000));
    EXPECT_TRUE(info.contains("created"));
  }
}

TEST_F(MetaDataProvider, WhatCannotBeReadIsLeftOut) {
  const std::string missing = folder.path("missing");
  EXPECT_TRUE(QMRMetaDataProvider::fileInfoForPath(missing.c_str()).empty());
  EXPECT_TRUE(QMRMetaDataProvider::fileInfoForFiledescriptor(-1).empty());
  EXPECT_TRUE(recorder.has(
      LogLevel::error,
      "failed to stat() " + missing + ": errno=2 file_info will not be populated with stat information"));
  EXPECT_TRUE(recorder.has(LogLevel::error, "Error listing extended attributes for (null), errno=9"));
}

TEST_F(MetaDataProvider, ExtendedAttributesAreRenderedByTheirKindOrLeftOut) {
  const std::string path = folder.write("f", "");
  const Value leftOut;  // null is no attribute's value
  const std::pair<std::string, Value> cases[] = {
      {"0083;5f3c1a2b;Safari;UUID", "0083;5f3c1a2b;Safari;UUID"},
      {"text\0binary"s, "text"},
      {"\0hidden"s, ""},
      {"\xef\xbb\xbf"
       "marked",
       "marked"},
      {dictionaryList(), "{\"ab\"=(1,\"xy\");}"},
      {arrayList(), "a b;1"},
      {numberList(), 1},
      {"bplist", "bplist"},
      {"", leftOut},
      {"caf\xe9", leftOut},
      {"bplist00\x01\xff", leftOut},
  };
  for (const auto& [content, expected] : cases) {
    if (::setxattr(path.c_str(), "user.case", content.data(), content.size(), 0) != 0)
      GTEST_SKIP() << "no user attributes on " << folder.path() << ": " << std::strerror(errno);
    const Array attributes = QMRMetaDataProvider::extendedAttributesForPath(path.c_str(), -1);
    const Value* const value = valueOf(attributes, "user.case");
    EXPECT_EQ(value == nullptr ? leftOut : *value, expected) << content;
  }
  EXPECT_TRUE(recorder.has(LogLevel::error, "Failed to decode data in xattr user.case, ignoring"));
  EXPECT_TRUE(recorder.hasError("Error parsing binary plist: Error Domain=NSCocoaErrorDomain Code=3840 "));
}

}  // namespace
