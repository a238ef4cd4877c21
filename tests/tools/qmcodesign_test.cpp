

#include "support/development_authority.hpp"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

CommandResult qmcodesign(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), QM_TEST_QMCODESIGN);
  return runCommand(arguments);
}

class Qmcodesign : public testing::Test {
 protected:
  CommandResult sign(const std::string& program, const std::string& key) const {
    return qmcodesign({"sign", "--key", key, "--certificate", authority_.certificate(), program});
  }
  CommandResult verify(const std::string& requirement, const std::string& path) const {
    return qmcodesign({"verify", "--anchors", authority_.folder(), "--requirement", requirement, path});
  }

  ScratchFolder scratch_;
  DevelopmentAuthority authority_;
  const std::string original_ = readFile(QM_TEST_WAITING_PROGRAM);
  const std::string program_ = scratch_.write("program", original_);
};

TEST_F(Qmcodesign, TheAuthorityIsPrivateAndNeverOverwritten) {
  EXPECT_EQ(fs::status(authority_.key()).permissions(), fs::perms(0600));
  const std::string key = readFile(authority_.key());
  EXPECT_THAT(qmcodesign({"authority", authority_.folder()}).output, HasSubstr("File exists"));
  EXPECT_EQ(readFile(authority_.key()), key);
  // The certificate's file exists: nothing new may be left beside it.
  fs::remove(authority_.key());
  EXPECT_EQ(qmcodesign({"authority", authority_.folder()}).exitStatus, 2);
  EXPECT_FALSE(fs::exists(authority_.key()));
}

TEST_F(Qmcodesign, ASignedProgramRunsAndPlainOpenSSLVerifiesItsOneSignature) {
  fs::permissions(program_, fs::perms(0751));
  const std::string link = scratch_.path("link"), cms = scratch_.path("cms"),
                    content = scratch_.path("content");
  fs::create_symlink("program", link);
  DevelopmentAuthority("OTHERTEAM1").sign(program_);
  ASSERT_EQ(sign(link, authority_.key()).exitStatus, 0);
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(fs::status(program_).permissions(), fs::perms(0751));
  EXPECT_EQ(runCommand({program_}).output, "ready\n");
  EXPECT_EQ(codesign({"extract", "--signature", cms, "--content", content, program_}),
            std::to_string(original_.size()) + "\n");
  EXPECT_EQ(readFile(content), original_);
  const std::vector<std::string> verification{
      "openssl",  "cms",   "-verify", "-binary",         "-inform",  "DER", "-in",  cms,
      "-content", content, "-CAfile", authority_.root(), "-purpose", "any", "-out", "/dev/null"};
  EXPECT_EQ(runCommand(verification).exitStatus, 0);
  std::ofstream(content, std::ios::app) << "x";
  EXPECT_NE(runCommand(verification).exitStatus, 0);
}

TEST_F(Qmcodesign, VerifySaysWhatIsWrongAndByItsExitStatus) {
  EXPECT_EQ(verify("always", program_).output, program_ + ": not signed\n");
  authority_.sign(program_);
  EXPECT_EQ(verify(R"(certificate leaf[subject.OU] = "K7Q2M9X4T1")", program_).exitStatus, 0);
  EXPECT_EQ(verify(R"(info [CFBundleShortVersionString] > "99")", program_).exitStatus, 1);
  EXPECT_THAT(verify("certificate leaf[OU] = x", program_).output, HasSubstr("\"OU\" is no key"));
  EXPECT_EQ(verify("always", scratch_.path()).exitStatus, 2);
  const CommandResult unsaid =
      runCommand({"bash", "-c", QM_TEST_QMCODESIGN " show " + program_ + " >/dev/full"});
  EXPECT_EQ(unsaid.exitStatus, 2);
  EXPECT_EQ(unsaid.output, "qmcodesign: the output cannot be written: No space left on device\n");
}

TEST_F(Qmcodesign, VerifySaysWhyAFolderOfAnchorsDoesNotCount) {
  authority_.sign(program_);
  const std::string open = scratch_.path("open");
  fs::create_directory(open);
  fs::permissions(open, fs::perms::all);
  const std::pair<std::string, std::string> cases[] = {
      {scratch_.path("missing"), ": no such folder\n"},
      {program_, ": Not a directory\n"},
      {open, ": everybody may write to it, so that no root in it counts\n"},
  };
  for (const auto& [folder, reason] : cases) {
    const CommandResult result = qmcodesign({"verify", "--anchors", folder, program_});
    EXPECT_EQ(result.output, "qmcodesign: " + folder + reason);
    EXPECT_EQ(result.exitStatus, 2);
  }
  fs::permissions(open, fs::perms::owner_all);
  EXPECT_EQ(qmcodesign({"verify", "--anchors", open, program_}).exitStatus, 1) << "empty, it counts";
}

TEST_F(Qmcodesign, WhatCannotBeSignedStaysAsItWas) {
  const std::string text = scratch_.write("text", "#!/bin/sh\n");
  const DevelopmentAuthority other;
  const std::vector<std::array<std::string, 3>> cases{
      {text, authority_.key(), "is no ELF program"},
      {scratch_.path(), authority_.key(), "is no regular file"},
      {program_, other.key(), "not the key of the certificate in "},
      {program_, authority_.certificate(), "no private key in PEM form"},
  };
  for (const auto& [program, key, reason] : cases) EXPECT_THAT(sign(program, key).output, HasSubstr(reason));
  EXPECT_EQ(readFile(program_), original_);
  EXPECT_EQ(readFile(text), "#!/bin/sh\n");
  EXPECT_EQ(std::distance(fs::directory_iterator(scratch_.path()), {}), 2);
}

}  // namespace
