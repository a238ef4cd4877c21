// Runs as a program of a scratch installation in the namespace "trial" (see CMakeLists.txt).
#include "settings/QMRCustomization.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/main_bundle.hpp"
#include "platform/system_root.hpp"
#include "settings/QMRNamespace.hpp"
#include "support/log_recorder.hpp"

namespace {

using qm::LogLevel;

class Namespace : public testing::Environment {
 public:
  void SetUp() override {
    std::ofstream(qm::MainBundle::instance().bundlePath() + "/namespace") << "trial\n";
  }
};
const testing::Environment* const kNamespace = testing::AddGlobalTestEnvironment(new Namespace);

class CustomizationTest : public testing::Test {
 protected:
  CustomizationTest() : root_(qm::hostPath("/Library/Quillmarsh-trial")) {
    // Never the machine's own folder.
    EXPECT_NE(root_, "/Library/Quillmarsh-trial");
    std::filesystem::remove_all(root_ / "qxmac/config");
    std::filesystem::create_directories(root_ / "qxmac/config");
  }

  void write(const std::string& name, const std::string& content) const {
    std::ofstream(root_ / "qxmac/config" / name, std::ios::binary) << content;
  }
  void setParameters(const std::string& text) const { write("parameters", text); }
  void setOperator(const std::string& text) const { write("operator_id", text); }

  const std::filesystem::path root_;
  const QMRCustomization customization_;
};

TEST_F(CustomizationTest, BasaltIsChosenByTheValueTrueAlone) {
  const std::pair<const char*, bool> cases[] = {
      {"A=b\nBASALT=True\nC=d\n", true},
      {"BASALT=false\nBASALT=true\n", true},  // the later line counts
      {"BASALT=true\nBASALT=no\n", false},
      {"BASALT=1", false},
      {"BASALT =true", false},
      {"BASALT= true", false},
      {"BASALT=true\r\n", false},
      {"BASALT=true=x", false},
      {"basalt=true", false},
      {"", false},
  };
  for (const auto& [parameters, expected] : cases) {
    setParameters(parameters);
    EXPECT_EQ(customization_.useBasalt(), expected) << parameters;
  }
  setParameters(
      "\xEF\xBB\xBF"
      "A= 1 \nB==\nC\n=empty key\nD=\r\nA=2\n E =\n");
  EXPECT_EQ(customization_.configParameters(),
            (QMRCustomization::Parameters{{"A", "2"}, {"", "empty key"}, {"D", "\r"}, {" E ", ""}}));
}

TEST_F(CustomizationTest, AnUnreadableParametersFileIsLoggedAndGivesTheDefaults) {
  const qm::test::LogRecorder logs;
  EXPECT_FALSE(customization_.configParameters());
  EXPECT_FALSE(customization_.useBasalt());
  EXPECT_TRUE(logs.hasContaining(LogLevel::error,
                                 "Error reading parameters file: Error Domain=NSCocoaErrorDomain Code=260"));

  setParameters("BASALT=true\n\xFF\n");
  EXPECT_FALSE(customization_.useBasalt());
  EXPECT_TRUE(logs.hasContaining(LogLevel::error,
                                 "Error reading parameters file: Error Domain=NSCocoaErrorDomain Code=261"));
  EXPECT_EQ(customization_.operatorId(), "");
  EXPECT_TRUE(logs.hasContaining(LogLevel::error, "Unknown operator id. Will return empty string. Error: "));
}

TEST_F(CustomizationTest, MaturityComesFromTheParameterOrTheOperator) {
  const struct {
    const char* parameters;
    const char* operatorId;
    bool isAlpha, isBeta, hasForcedConsent;
    const char* environment;
  } cases[] = {
      {"", "1", false, false, false, "prod"},
      {"MATURITY=Alpha", "1", true, false, true, "ci"},
      {"MATURITY=Beta", "1", false, true, true, "stg"},
      {"", "777\n", true, false, false, "ci"},
      {"MATURITY=beta", "777", true, true, false, "ci"},
      {"", " 6992000 ", false, true, true, "stg"},
      {"", "0777", false, false, false, "prod"},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(std::string(expected.parameters) + " / " + expected.operatorId);
    setParameters(expected.parameters);
    setOperator(expected.operatorId);
    EXPECT_EQ(customization_.isAlpha(), expected.isAlpha);
    EXPECT_EQ(customization_.isBeta(), expected.isBeta);
    EXPECT_EQ(customization_.hasForcedTelemetryConsent(), expected.hasForcedConsent);
    EXPECT_EQ(customization_.porterEnvironment(), expected.environment);
  }
}

TEST_F(CustomizationTest, OneLineFilesAreReadFromTheNamespacedFolder) {
  const qm::test::LogRecorder logs;
  EXPECT_FALSE(customization_.telemetrySource().empty());
  EXPECT_TRUE(logs.hasContaining(
      LogLevel::error,
      "Error reading data from file (/Library/Quillmarsh-trial/qxmac/config/telemetry_source) : "));
  write("telemetry_source", "\n lab\r\n");
  EXPECT_EQ(customization_.telemetrySource(), "lab");
  EXPECT_FALSE(customization_.isTidal2());
  for (const char* const noAddress : {"\n", "not a url", "mailto:someone"}) {
    write("tidal2_url", noAddress);
    EXPECT_TRUE(customization_.isTidal2());
    EXPECT_EQ(customization_.tidal2Server(), std::nullopt) << noAddress;
  }
  write("tidal2_url", "https://tidal.example:8443/updates\n");
  EXPECT_EQ(customization_.tidal2Server(), "tidal.example");
}

TEST_F(CustomizationTest, AskedFromManyThreadsWhileTheFileIsReplacedItSeesTheOldOrTheNewFile) {
  setParameters("BASALT=true\nPRODUCT=orchard\n");
  std::atomic<int> wrong{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&] {
      for (int round = 0; round < 50; ++round)
        wrong += !customization_.useBasalt() || !customization_.isOrchard();
    });
  }
  for (int round = 0; round < 50; ++round) {
    write("parameters.new", "BASALT=TRUE\nPRODUCT=orchard\n");
    std::filesystem::rename(root_ / "qxmac/config/parameters.new", root_ / "qxmac/config/parameters");
  }
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
