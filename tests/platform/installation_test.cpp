// Where an installation finds itself.

#include "platform/linux/run_folder.hpp"
#include "platform/linux/system_root.hpp"
#include "platform/main_bundle.hpp"
#include "platform/system_root.hpp"
#include "support/testing.hpp"

namespace {

TEST(SystemRoot, FollowsFromWhereTheProgramLies) {
  const std::pair<const char*, const char*> cases[] = {
      {"/Library/Quillmarsh/qxmac/bin/qmr", "/"},
      {"/srv/one/Library/Quillmarsh/qxmac/bin/qmr", "/srv/one"},
      {"/srv/one/Library/Quillmarsh-beta/qxmac/bin/qmr", "/srv/one"},
      {"/srv/Library/Quillmarsh/qxmac/bin/Library/Quillmarsh/qxmac/bin/qmr",
       "/srv/Library/Quillmarsh/qxmac/bin"},
      {"/srv/Library/Quillmarsh/qxmac/bin/qmr (deleted)", "/srv"},
      {"/srv/one/Library/Quillmarsh-/qxmac/bin/qmr", "/"},
      {"/srv/one/Library/Quillmarshes/qxmac/bin/qmr", "/"},
      {"/srv/one/Library/Quillmarsh/qxmac/bin/tools/qmr", "/"},
      {"/srv/one/Quillmarsh/qxmac/bin/qmr", "/"},
      {"Library/Quillmarsh/qxmac/bin/qmr", "/"},
      {"", "/"},
  };
  for (const auto& [program, root] : cases) EXPECT_EQ(programRoot(program), root) << program;
  EXPECT_EQ(runFolder("/srv/one"), "/srv/one/run/quillmarsh");
  EXPECT_EQ(runFolder("/"), "/run/quillmarsh");
  EXPECT_EQ(systemRoot(), "/");
  EXPECT_EQ(hostPath("/Library/Quillmarsh"), "/Library/Quillmarsh");
  EXPECT_EQ(MainBundle::instance().bundleIdentifier(), std::nullopt);
}

}  // namespace
