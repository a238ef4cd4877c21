#include "platform/linux/process_identity.hpp"

#include <sys/prctl.h>
#include <sys/syscall.h>

#include "platform/code_signing.hpp"
#include "support/testing.hpp"

namespace {

// As long as it is set, the file system of this program does not answer to whoever closes its file.
std::atomic<bool> closingHangs = false;

bool isOwnProgram(int descriptor) {
  struct stat program {};
  struct stat file {};
  return ::stat("/proc/self/exe", &program) == 0 && ::fstat(descriptor, &file) == 0 &&
         file.st_dev == program.st_dev && file.st_ino == program.st_ino;
}

}  // namespace

extern "C" int close(int descriptor) {
  if (closingHangs && isOwnProgram(descriptor)) closingHangs.wait(true);
  return static_cast<int>(::syscall(SYS_close, descriptor));
}

namespace {

TEST(ProcessIdentity, TheTokenOfAProcessIsItsOwnWhateverItCallsItself) {
  const std::optional<AuditToken> token = auditTokenOfProcess(::getpid());
  ASSERT_TRUE(token);
  ASSERT_EQ(::prctl(PR_SET_NAME, ") Z 1 2 3"), 0);  // looks like more fields
  EXPECT_EQ(auditTokenOfProcess(::getpid()), token);
}

TEST(ProcessIdentity, AProgramThatCannotBeClosedKeepsNobodyWaiting) {
  const std::optional<AuditToken> token = auditTokenOfProcess(::getpid());
  ASSERT_TRUE(token);
  SecCodePtr code;
  ASSERT_EQ(copyGuestWithAuditToken(*token, code), kSecSuccess);
  const auto isProgramOpen = [] {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
      if (isOwnProgram(std::stoi(entry.path().filename()))) return true;
    return false;
  };
  closingHangs = true;
  code = nullptr;
  EXPECT_TRUE(isProgramOpen());
  closingHangs = false;
  closingHangs.notify_all();
  EXPECT_TRUE(eventually([&] { return !isProgramOpen(); }));
}

}  // namespace
