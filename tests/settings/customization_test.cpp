// Runs as a program of a scratch installation in the namespace "trial" (see CMakeLists.txt).
#include "settings/QMRCustomization.hpp"

#include <gtest/gtest.h>

#include <algorithm>
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
    std::filesystem::remove_all(root_ / "qxmac/gui");
    std::filesystem::create_directories(root_ / "qxmac/gui");
  }

  void write(const std::string& name, const std::string& content) const {
    std::ofstream(root_ / "qxmac/config" / name, std::ios::binary) << content;
  }
  void setParameters(const std::string& text) const { write("parameters", text); }
  static auto errorsOf(const qm::test::LogRecorder& logs, std::string_view beginning) {
    const std::vector<qm::test::LogLine> lines = logs.lines();
    return static_cast<std::size_t>(std::ranges::count_if(lines, [&](const auto& line) {
      return line.level == LogLevel::error && line.message.starts_with(beginning);
    }));
  }
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

TEST_F(CustomizationTest, TheProductAndItsInterfaceAreSaidByParameterAndOperator) {
  const struct {
    const char* parameters;
    const char* operatorId;
    const char* family;
    bool hasGUI;
  } cases[] = {
      {"PRODUCT=mdr", "12000\n", "mdr", false},  {"PRODUCT=mdr\nGUI=true", "12000", "mdr", true},
      {"PRODUCT=MDR", "12001", "unknown", true}, {"PRODUCT=orchard\nGUI=no", "1", "orc", false},
      {"PRODUCT=fernguard", "", "fg", true},
  };
  for (const auto& expected : cases) {
    setParameters(expected.parameters);
    setOperator(expected.operatorId);
    EXPECT_EQ(customization_.productFamilyName(), expected.family);
    EXPECT_EQ(customization_.hasGUI(), expected.hasGUI) << expected.parameters;
  }
}

TEST_F(CustomizationTest, TheBrowsingProtectionsFileIsAJSONObject) {
  const std::string nested = R"({"a":{"b":[null,true,-1,18446744073709551615,0.5,"\u00e9"]},"a2":{}})";
  write("../gui/product.json", nested);
  EXPECT_EQ(
      customization_.browsingProtectionCustomization(),
      (qm::Dictionary{{"a", qm::Dictionary{{"b", qm::Array{qm::Null(), true, -1, UINT64_MAX, 0.5, "é"}}}},
                      {"a2", qm::Dictionary()}}));
  const auto deep = [](std::size_t levels) {
    return "{\"a\":" + std::string(levels, '[') + std::string(levels, ']') + "}";
  };
  write("../gui/product.json", deep(64));
  EXPECT_TRUE(customization_.browsingProtectionCustomization());
  const qm::test::LogRecorder logs;
  const std::string refused[] = {"",
                                 "[]",
                                 "{",
                                 "{}x",
                                 "{\"a\":1e999}",
                                 "{\"a\":\"\\ud800\"}",
                                 deep(65),
                                 deep(500'000),
                                 nested + std::string(1 << 20, ' ')};
  for (const std::string& text : refused) {
    write("../gui/product.json", text);
    EXPECT_FALSE(customization_.browsingProtectionCustomization()) << text.substr(0, 80);
  }
  EXPECT_EQ(errorsOf(logs,
                     "Error reading data from file (/Library/Quillmarsh-trial/qxmac/gui/product.json) : "
                     "Error Domain=NSCocoaErrorDomain Code=3840 "),
            std::size(refused));
}

TEST_F(CustomizationTest, ColoursAreHexadecimalOrNameAStyleConstantThatIs) {
  write("../gui/product.json", R"({"surfaceColor":"#33ff00","buttonColor":"accent","hoverColor":"large",
    "titlebarTextColor":"#+12345","backgroundColor":1,"isTemplatedStatusbarIcon":true,
    "styleConstants":{"accent":"#0000CC","large":"14pt"}})");
  using Color = QMRCustomization::Color;
  EXPECT_EQ(customization_.surfaceColor(), (Color{0.2, 1, 0}));
  EXPECT_EQ(customization_.surfaceColorHex(), "#33ff00");
  EXPECT_EQ(customization_.buttonColor(), (Color{0, 0, 0.8}));
  EXPECT_EQ(customization_.buttonColorHex(), "#0000CC");
  EXPECT_EQ(customization_.colorForCuifColor("accent"), customization_.buttonColor());
  for (const auto& none : {customization_.hoverColor(), customization_.titlebarTextColor(),
                           customization_.backgroundColor(), customization_.selectedTextColor()})
    EXPECT_FALSE(none);
  EXPECT_EQ(customization_.cuifStyleConstantForName("large"), "14pt");
  EXPECT_TRUE(customization_.isTemplatedStatusbarIcon());
  EXPECT_EQ(QMRCustomization::fullPathForImage("shield.png"),
            "/Library/Quillmarsh-trial/qxmac/gui/shield.png");
}

TEST_F(CustomizationTest, EachColourHasItsKey) {
  using Customization = QMRCustomization;
  const std::pair<std::optional<Customization::Color> (Customization::*)() const, std::string> colours[] = {
      {&Customization::surfaceColor, "surfaceColor"},
      {&Customization::buttonColor, "buttonColor"},
      {&Customization::hoverColor, "hoverColor"},
      {&Customization::selectedTextColor, "selectedTextColor"},
      {&Customization::titlebarTextColor, "titlebarTextColor"},
      {&Customization::backgroundColor, "backgroundColor"},
      {&Customization::browsingPageSecondaryColor, "browsingPageSecondaryColor"},
  };
  for (const auto& [colour, key] : colours) {
    write("../gui/product.json", "{\"" + key + "\":\"#33ff00\"}");
    EXPECT_EQ((customization_.*colour)(), (Customization::Color{0.2, 1, 0})) << key;
  }
}

TEST_F(CustomizationTest, TheProductsLanguagesAreThoseOfTheLanguagesFile) {
  const qm::test::LogRecorder logs;
  EXPECT_TRUE(customization_.availableCustomizationLanguages().empty());
  write("../gui/available_languages.xml", R"(<plist version="1.0"><dict>
    <key>default</key><string>en</string>
    <key>languages</key><array><string>en</string><integer>1</integer><string>fr-CA</string></array>
  </dict></plist>)");
  EXPECT_EQ(customization_.defaultCustomizationLanguage(), "en");
  EXPECT_EQ(customization_.availableCustomizationLanguages(), (std::vector<std::string>{"en", "fr-CA"}));
  write("../gui/available_languages.xml", "<plist><array/></plist>");
  EXPECT_EQ(customization_.defaultCustomizationLanguage(), std::nullopt);
  EXPECT_EQ(errorsOf(logs, "Error reading languages file: Error Domain="), 2U);
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
