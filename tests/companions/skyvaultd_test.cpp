// The agent as it is installed: a signed program in an installation of its own.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/development_authority.hpp"

namespace qm {
namespace {

TEST(Skyvaultd, ServesSignedProgramsOnly) {
  const test::DevelopmentAuthority authority;
  test::StagedInstallation installation;
  std::filesystem::create_directories(installation.root() / "run/quillmarsh");
  installation.trust(authority);
  const std::string program = installation.stage(QM_AGENT_PROGRAM, "skyvaultd");
  const std::string asker = installation.stage(QM_ASKER_PROGRAM, "skyvault_asker");
  const std::string unsignedAsker = installation.stage(QM_ASKER_PROGRAM, "unsigned_asker");
  authority.sign(program);
  authority.sign(asker);
  const test::ChildProcess agent({program});
  while (test::runCommand({asker}).output != "unknown") {  // until the agent is up
  }
  EXPECT_EQ(test::runCommand({unsignedAsker}).output, "error 2");
  EXPECT_EQ(test::runCommand({program}).exitStatus, EXIT_FAILURE) << "a second agent gives up";
  EXPECT_EQ(test::runCommand({asker}).output, "unknown");
}

}  // namespace
}  // namespace qm
