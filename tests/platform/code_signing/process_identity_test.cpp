#include "platform/linux/process_identity.hpp"

#include <sys/prctl.h>

#include "support/testing.hpp"

namespace {

TEST(ProcessIdentity, TheTokenOfAProcessIsItsOwnWhateverItCallsItself) {
  const std::optional<AuditToken> token = auditTokenOfProcess(::getpid());
  ASSERT_TRUE(token);
  ASSERT_EQ(::prctl(PR_SET_NAME, ") Z 1 2 3"), 0);  // looks like more fields
  EXPECT_EQ(auditTokenOfProcess(::getpid()), token);
}

}  // namespace
