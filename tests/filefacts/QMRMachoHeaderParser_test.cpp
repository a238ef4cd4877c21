#include "filefacts/QMRMachoHeaderParser.hpp"

#include "platform/file_io.hpp"
#include "support/testing.hpp"

namespace {

constexpr std::uint32_t kMarker = 0xCACACA01;

// A word as a writer of that byte order stores it.
std::string word(std::uint32_t value, bool isBigEndian) {
  std::string bytes;
  for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<char>(value >> (isBigEndian ? 24 - 8 * i : 8 * i)));
  return bytes;
}

struct Command {
  std::uint32_t cmd = 0;
  std::uint32_t cmdsize = 0;
};

// A thin file: header, then the commands, each filled up to its size.
std::string machO(bool is64, bool isBigEndian, const std::vector<Command>& commands, std::uint32_t ncmds) {
  std::string bytes = word(is64 ? 0xFEEDFACF : 0xFEEDFACE, isBigEndian);
  for (const std::uint32_t field : {0x01000007U, 3U, 2U, ncmds, 0U, 0U}) bytes += word(field, isBigEndian);
  if (is64) bytes += word(0, isBigEndian);
  for (const Command& command : commands) {
    bytes += word(command.cmd, isBigEndian) + word(command.cmdsize, isBigEndian);
    if (command.cmdsize > 8) bytes.append(command.cmdsize - 8, '\x55');
  }
  return bytes;
}

class MachoHeaderParser : public RecordedTest {
 protected:
  bool isAOT(const std::string& content) {
    const std::string path = folder.write("f", content);
    const FileDescriptor file = openForReading(path.c_str());
    const bool byDescriptor = QMRMachoHeaderParser::isAOTBinaryAtPath(std::nullopt, file.get());
    EXPECT_EQ(QMRMachoHeaderParser::isAOTBinaryAtPath(path, -1), byDescriptor);
    EXPECT_NE(::fcntl(file.get(), F_GETFD), -1) << "the descriptor was closed";
    return byDescriptor;
  }
};

TEST_F(MachoHeaderParser, FindsTheMarkerInThinFilesOfBothSizesAndByteOrders) {
  for (const bool is64 : {false, true})
    for (const bool isBigEndian : {false, true}) {
      const std::vector<Command> commands{{0x19, 72}, {0x2, 24}, {kMarker, 16}};
      EXPECT_TRUE(isAOT(machO(is64, isBigEndian, commands, 3)));
      EXPECT_FALSE(isAOT(machO(is64, isBigEndian, commands, 2)));
      EXPECT_FALSE(isAOT(machO(is64, isBigEndian, {{0x19, 72}, {0x2, 24}}, 2)));
    }
}

TEST_F(MachoHeaderParser, CommandsAreFollowedAcrossTheWholeFile) {
  // Many portions, and commands that lie across their ends.
  std::vector<Command> commands(1'000'000, Command{0x2, 12});
  commands.push_back({0x2, 100'000});
  EXPECT_FALSE(isAOT(machO(true, false, commands, UINT32_MAX)));
  commands.push_back({kMarker, 8});
  EXPECT_TRUE(isAOT(machO(true, false, commands, 1'000'002)));
  EXPECT_FALSE(isAOT(machO(true, false, commands, 1'000'001)));
}

TEST_F(MachoHeaderParser, DamagedFilesAreNotTranslatedOnes) {
  const std::string whole = machO(true, false, {{0x19, 72}, {kMarker, 8}}, 2);
  // From the marker's first word on it is recognised.
  for (std::size_t length = 0; length < whole.size(); ++length)
    EXPECT_EQ(isAOT(whole.substr(0, length)), length >= whole.size() - 4) << length;
  EXPECT_FALSE(isAOT(machO(true, false, {{0x19, 0}, {kMarker, 8}}, UINT32_MAX)));
  EXPECT_FALSE(isAOT(machO(true, false, {{0x19, 16}}, UINT32_MAX)));
  std::string beyond = machO(true, false, {{0x19, 8}, {kMarker, 8}}, UINT32_MAX);
  beyond.replace(36, 4, "\xff\xff\xff\xff");
  EXPECT_FALSE(isAOT(beyond));
}

TEST_F(MachoHeaderParser, UniversalAndOtherFilesAreSkipped) {
  const std::string thin = machO(true, false, {{kMarker, 8}}, 1);
  for (const std::uint32_t magic : {0xCAFEBABEU, 0xCAFEBABFU, 0xBEBAFECAU, 0xBFBAFECAU})
    EXPECT_FALSE(isAOT(word(magic, false) + thin.substr(4)));
  EXPECT_EQ(recorder.count(LogLevel::debug, "Skipping fat binaries"), 8U);
  for (const char* const content : {"", "\xcf\xfa\xed", "#!/bin/sh\n"}) EXPECT_FALSE(isAOT(content));
  const char* const line = "Skipping file with non intesting magic (non MachO binary)";
  EXPECT_EQ(recorder.count(LogLevel::debug, line), 6U);
}

TEST_F(MachoHeaderParser, DescriptorsThatAreRefused) {
  for (const int descriptor : {0, -1, 1'000'000})
    EXPECT_FALSE(QMRMachoHeaderParser::isAOTBinaryAtPath(std::nullopt, descriptor));
  EXPECT_TRUE(recorder.has(LogLevel::error, "Could not open file at (null) (0)"));
  EXPECT_TRUE(recorder.hasError("Error occurred while loading contents: Error Domain="));
}

TEST_F(MachoHeaderParser, AnUnreadablePathIsJudgedByItsExtension) {
  const std::string missing = folder.path("missing.aot");
  EXPECT_TRUE(QMRMachoHeaderParser::isAOTBinaryAtPath(missing, -1));
  EXPECT_TRUE(recorder.has(
      LogLevel::debug,
      "File at " + missing + " cannot be accessed but has .aot extension. Treating it as AOT binary"));
  EXPECT_FALSE(QMRMachoHeaderParser::isAOTBinaryAtPath(folder.path("missing"), 3));
  EXPECT_FALSE(QMRMachoHeaderParser::isAOTBinaryAtPath(folder.write("readable.aot", "text"), -1));
}

}  // namespace
