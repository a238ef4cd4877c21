#include "settings/QMRNamespace.hpp"

#include <gtest/gtest.h>

#include <string>

#include "support/log_recorder.hpp"
#include "support/scratch_folder.hpp"

namespace {

using qm::LogLevel;
using qm::test::ScratchFolder;

TEST(NamespaceTest, RewritesTheMakerComponentOfIdentifiersOnce) {
  const QMRNamespace sidecar("sidecar");
  const std::pair<const char*, const char*> cases[] = {
      {"com.quillmarsh.qmsettingsd", "com.quillmarsh.sidecar.qmsettingsd"},
      {"com.quillmarsh.sidecar.qmsettingsd", "com.quillmarsh.sidecar.qmsettingsd"},
      {"com.QuillMarsh.x", "com.QuillMarsh.sidecar.x"},
      {"com.quillmarsh", "com.quillmarsh.sidecar"},
      {"com.quillmarsh.Sidecar.x", "com.quillmarsh.sidecar.Sidecar.x"},  // the namespace's own case counts
      {"com.quillmarshes.x", "com.quillmarshes.x"},
      {"quillmarsh.quillmarsh", "quillmarsh.sidecar.quillmarsh.sidecar"},
      {"", ""},
  };
  for (const auto& [identifier, expected] : cases) {
    EXPECT_EQ(sidecar.identifierInNamespace(identifier), expected);
    EXPECT_EQ(sidecar.identifierInNamespace(expected), expected) << "not idempotent";
  }
}

TEST(NamespaceTest, RewritesTheMakerFolderOfPaths) {
  const QMRNamespace sidecar("sidecar");
  EXPECT_EQ(sidecar.pathInNamespace("/Library/Quillmarsh/x"), "/Library/Quillmarsh-sidecar/x");
  EXPECT_EQ(sidecar.pathInNamespace("/Library/Quillmarsh-sidecar/x"), "/Library/Quillmarsh-sidecar/x");
  const QMRNamespace none("");
  EXPECT_EQ(none.identifierInNamespace("com.quillmarsh.x"), "com.quillmarsh.x");
  EXPECT_EQ(none.pathInNamespace("/Library//Quillmarsh/"), "/Library//Quillmarsh/");
  EXPECT_EQ(sidecar.namespacedComponent("x", "+") + none.namespacedComponent("y", "+"), "x+sidecary");
}

TEST(NamespaceTest, TheResourceWinsOverTheFileBesideTheProgramOrBundle) {
  const ScratchFolder folder;
  const std::string resource = folder.write("Resources/namespace", "  sidecar \r\n");
  folder.write("namespace", "beside");
  folder.write("Product.app/namespace", "inside");
  folder.write("Product.d/namespace", "inside");
  EXPECT_EQ(QMRNamespace::nameFromBundle(resource, folder.path()), "sidecar");
  EXPECT_EQ(QMRNamespace::nameFromBundle(std::nullopt, folder.path()), "beside");
  EXPECT_EQ(QMRNamespace::nameFromBundle(std::nullopt, folder.path("Product.app")), "beside");
  EXPECT_EQ(QMRNamespace::nameFromBundle(std::nullopt, folder.path("Product.d")), "inside");
}

TEST(NamespaceTest, AnUnreadableOrBlankFileGivesTheEmptyNamespace) {
  const ScratchFolder folder;
  const qm::test::LogRecorder logs;
  EXPECT_EQ(QMRNamespace::nameFromBundle(std::nullopt, folder.path("missing")), "");
  EXPECT_TRUE(logs.has(LogLevel::error,
                       "there was an error opening the namespace at " + folder.path("missing/namespace")));

  const std::string blank = folder.write("blank", " \t\n\n");
  EXPECT_EQ(QMRNamespace::nameFromBundle(blank, folder.path()), "");
}

}  // namespace
