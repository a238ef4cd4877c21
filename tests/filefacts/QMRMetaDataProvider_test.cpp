#include "filefacts/QMRMetaDataProvider.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "platform/file_io.hpp"
#include "support/log_recorder.hpp"
#include "support/scratch_folder.hpp"

namespace {

using namespace std::string_literals;
using qm::LogLevel;

// The rendered value of the attribute, or a null pointer when it was left out.
const qm::Value* valueOf(const qm::Array& attributes, std::string_view name) {
  for (const qm::Value& attribute : attributes) {
    const auto* const record = attribute.as<qm::Dictionary>();
    if (record != nullptr && *qm::find<std::string>(*record, "attribute") == name)
      return qm::find(*record, "value");
  }
  return nullptr;
}

// A binary list: { "a b" = ( 1, "x y" ); }.
std::string dictionaryList() {
  return "bplist00\xd1\1\2\x53"
         "a b\xa2\3\4\x10\1\x53x y\x08\x0b\x0f\x12\x14"s +
         "\0\0\0\0\0\0\1\1\0\0\0\0\0\0\0\5"s + "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x18"s;
}

TEST(MetaDataProvider, TimesByPathAndByDescriptor) {
  const qm::test::ScratchFolder folder;
  const std::string path = folder.write("f", "x");
  const std::array<timespec, 2> times{timespec{1'500'000'000, 999'999'999}, timespec{1'400'000'000, 1}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
  const qm::FileDescriptor file = qm::openForReading(path.c_str());
  for (const qm::Dictionary& info : {QMRMetaDataProvider::fileInfoForPath(path.c_str()),
                                     QMRMetaDataProvider::fileInfoForFiledescriptor(file.get()),
                                     QMRMetaDataProvider::fileInfoForPath(path.c_str(), -1)}) {
    EXPECT_EQ(info.at("accessed"), qm::Value(1'500'000'000));
    EXPECT_EQ(info.at("modified"), qm::Value(1'400'000'000));
    EXPECT_TRUE(info.contains("created"));
  }
}

TEST(MetaDataProvider, WhatCannotBeReadIsLeftOut) {
  const qm::test::ScratchFolder folder;
  const std::string missing = folder.path("missing");
  const qm::test::LogRecorder recorder;
  EXPECT_TRUE(QMRMetaDataProvider::fileInfoForPath(missing.c_str()).empty());
  EXPECT_TRUE(QMRMetaDataProvider::fileInfoForFiledescriptor(-1).empty());
  EXPECT_TRUE(recorder.has(
      LogLevel::error,
      "failed to stat() " + missing + ": errno=2 file_info will not be populated with stat information"));
  EXPECT_TRUE(recorder.has(LogLevel::error, "Error listing extended attributes for (null), errno=9"));
}

TEST(MetaDataProvider, ExtendedAttributesAreRenderedByTheirKindOrLeftOut) {
  const qm::test::ScratchFolder folder;
  const std::string path = folder.write("f", "");
  const std::pair<std::string, const char*> cases[] = {
      {"0083;5f3c1a2b;Safari;UUID", "0083;5f3c1a2b;Safari;UUID"},
      {"text\0binary"s, "text"},
      {"\0hidden"s, ""},
      {"\xef\xbb\xbf"
       "marked",
       "marked"},
      {dictionaryList(), "{\"ab\"=(1,\"xy\");}"},
      {"", "left out"},
      {"caf\xe9", "left out"},
      {"bplist00\x01\xff", "left out"},
  };
  const qm::test::LogRecorder recorder;
  for (const auto& [content, expected] : cases) {
    if (::setxattr(path.c_str(), "user.case", content.data(), content.size(), 0) != 0)
      GTEST_SKIP() << "no user attributes on " << folder.path() << ": " << std::strerror(errno);
    const qm::Array attributes = QMRMetaDataProvider::extendedAttributesForPath(path.c_str(), -1);
    const qm::Value* const value = valueOf(attributes, "user.case");
    EXPECT_EQ(value == nullptr ? "left out" : value->description(), expected) << content;
  }
  EXPECT_TRUE(recorder.has(LogLevel::error, "Failed to decode data in xattr user.case, ignoring"));
  EXPECT_TRUE(recorder.hasContaining(
      LogLevel::error, "Error parsing binary plist: Error Domain=NSCocoaErrorDomain Code=3840 "));
}

}  // namespace
