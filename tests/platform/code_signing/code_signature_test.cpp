#include "platform/linux/code_signature.hpp"

#include <sys/stat.h>
#include <sys/syscall.h>

#include "certificate_maker.hpp"
#include "platform/file_io.hpp"
#include "support/testing.hpp"

namespace {

// What a file system answers whoever looks at a file; 0: nothing of its own.
int statError = 0;

}  // namespace

extern "C" int statx(int folder, const char* path, int flags, unsigned mask, struct statx* result) noexcept {
  errno = statError;
  if (statError != 0) return -1;
  return static_cast<int>(::syscall(SYS_statx, folder, path, flags, mask, result));
}

namespace {

std::string appended(const std::vector<std::uint8_t>& cms) {
  const std::vector<std::uint8_t> bytes = appendedBytes(cms);
  return {bytes.begin(), bytes.end()};
}

// A trailer that says that length, behind nothing that has it.
std::string trailer(std::uint64_t length) {
  std::string text = appended({});
  for (std::size_t i = 0; i < 8; ++i) text[i] = static_cast<char>(length >> (56 - 8 * i));
  return text;
}

class CodeSignature : public testing::Test {
 protected:
  CodeSignature() { trust(root_, "root.pem"); }

  void trust(const Identity& root, const std::string& name) const {
    scratch_.write("trust/" + name, pem(root));
  }
  OSStatus verify(const std::string& file) {
    const FileDescriptor program = openForReading(scratch_.write("program", file).c_str());
    const std::atomic<bool> cancelled{false};
    code_ = {};
    return verifyAppendedSignature(program.get(), scratch_.path("trust"), cancelled, code_);
  }
  OSStatus verifySignedBy(const Identity& leaf, const SignatureKind& kind = {}) {
    return verify(content_ + appended(sign(content_, leaf, kind)));
  }

  ScratchFolder scratch_;
  // More than one read of the verification.
  std::string content_ = std::string(700'000, 'x') + "the end";
  Identity root_ = issue({.name = "Root", .isAuthority = true}, nullptr);
  Identity leaf_ = issue({.name = "Leaf"}, &root_);
  CodeFacts code_;
};

TEST_F(CodeSignature, EveryByteOfTheContentIsUnderIt) {
  ASSERT_EQ(verifySignedBy(leaf_), kSecSuccess);
  EXPECT_EQ(code_.chain.at(0).subject["OU"], std::vector<std::string>{"TEAM"});
  const std::string signature = appended(sign(content_, leaf_));
  for (const std::size_t position : {std::size_t{0}, content_.size() / 2, content_.size() - 1}) {
    std::string changed = content_;
    changed[position] ^= 1;
    EXPECT_EQ(verify(changed + signature), kSecCSSignatureFailed) << position;
  }
}

TEST_F(CodeSignature, AChangeInTheSignatureNeverChangesWhoSigned) {
  const std::string signature = appended(sign("short", leaf_));
  ASSERT_EQ(verify("short" + signature), kSecSuccess);
  const auto hash = code_.chain.at(0).hash;
  for (std::size_t i = 0; i < signature.size(); i += 5) {
    std::string changed = "short" + signature;
    changed[5 + i] ^= 0x10;
    // What DER leaves open (a NULL parameter, say) may change; who signed may not.
    EXPECT_TRUE(verify(changed) != kSecSuccess || code_.chain.at(0).hash == hash) << i;
  }
}

TEST_F(CodeSignature, WhatIsNoneOrDamagedIsToldApart) {
  const std::vector<std::uint8_t> cms = sign(content_, leaf_);
  for (const std::string& none : {std::string(), content_, content_ + appended(cms) + "\n"})
    EXPECT_EQ(verify(none), kSecCSUnsigned);
  for (const std::string& damaged : {trailer(0), "x" + trailer(2), content_ + trailer(UINT64_MAX),
                                     content_ + trailer(kMaximumSignatureSize)})
    EXPECT_EQ(verify(damaged), kSecCSSignatureInvalid);
}

TEST_F(CodeSignature, AFileSystemsErrorIsNeverTakenForAShortageOfDescriptors) {
  for (const auto& [returned, reported] : {std::pair(EMFILE, EIO), std::pair(EACCES, EACCES)}) {
    statError = returned;
    const OSStatus status = verify(content_);
    statError = 0;
    EXPECT_EQ(status, kSecErrnoBase + reported);
  }
}

TEST_F(CodeSignature, OnlyTheProductsKindOfSignatureCounts) {
  EXPECT_EQ(verifySignedBy(leaf_, {.digest = EVP_sha1()}), kSecCSSignatureUnsupported);
  const Identity other = issue({.name = "Other"}, &root_);
  EXPECT_EQ(verifySignedBy(leaf_, {.secondSigner = &other}), kSecCSSignatureUnsupported);
  // With the signed content inside, what the program holds would not matter.
  const std::vector<std::uint8_t> attached = sign("signed", leaf_, {.flags = CMS_BINARY});
  EXPECT_EQ(verify("not signed" + appended(attached)), kSecCSSignatureInvalid);
}

TEST_F(CodeSignature, TheChainMustEndAtAnAnchorThatOnlyItsOwnerCanInstall) {
  const Identity foreignRoot = issue({.name = "Root", .isAuthority = true}, nullptr);
  const Identity foreign = issue({.name = "Leaf"}, &foreignRoot);
  EXPECT_EQ(verifySignedBy(foreign, {.intermediates = {&foreignRoot}}), kSecCSSignatureUntrusted);
  trust(foreignRoot, "second.pem");
  EXPECT_EQ(verifySignedBy(foreign), kSecSuccess);
  EXPECT_EQ(verifySignedBy(leaf_), kSecSuccess);
  ASSERT_EQ(::chmod(scratch_.path("trust/root.pem").c_str(), 0666), 0);
  EXPECT_EQ(verifySignedBy(leaf_), kSecCSSignatureUntrusted);
  std::filesystem::remove_all(scratch_.path("trust"));
  EXPECT_EQ(verifySignedBy(leaf_), kSecCSSignatureUntrusted);
}

TEST_F(CodeSignature, IntermediatesTravelInTheSignatureAndMustBeAuthorities) {
  const Identity intermediate = issue({.name = "Intermediate", .isAuthority = true}, &root_);
  const Identity below = issue({.name = "Leaf"}, &intermediate);
  ASSERT_EQ(verifySignedBy(below, {.intermediates = {&intermediate}}), kSecSuccess);
  EXPECT_EQ(verifySignedBy(below), kSecCSSignatureUntrusted);
  // A program's signer cannot issue certificates.
  const Identity issuedByLeaf = issue({.name = "Other"}, &leaf_);
  EXPECT_EQ(verifySignedBy(issuedByLeaf, {.intermediates = {&leaf_}}), kSecCSSignatureUntrusted);
}

TEST_F(CodeSignature, ExpiredCertificatesAreAcceptedAndWeakOnesAreNot) {
  const auto statusOf = [this](const CertificateKind& kind) { return verifySignedBy(issue(kind, &root_)); };
  EXPECT_EQ(statusOf({.name = "Expired", .firstDay = -60, .lastDay = -30}), kSecSuccess);
  EXPECT_EQ(statusOf({.name = "Short", .rsaBits = 1024}), kSecCSSignatureUntrusted);
  EXPECT_EQ(statusOf({.name = "SHA-1", .digest = EVP_sha1()}), kSecCSSignatureUntrusted);
}

}  // namespace
