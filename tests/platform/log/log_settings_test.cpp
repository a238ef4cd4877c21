#include "platform/linux/log_settings.hpp"

#include "support/testing.hpp"

namespace {

std::string list(const std::string& body) {
  return "<plist version=\"1.0\">" + body + "</plist>";
}

// One dictionary of options under the key.
std::string options(const std::string& key, const std::string& level, const std::string& privateData = "") {
  return "<key>" + key + "</key><dict><key>Level</key><dict><key>Enable</key><string>" + level +
         "</string></dict>" + privateData + "</dict>";
}

TEST(LogSettingsList, GivesWhatACategoryOverridesAndTheDefaultsForTheRest) {
  const std::string show = "<key>Enable-Private-Data</key><true/>";
  const std::string text =
      list("<dict>" + options("DEFAULT-OPTIONS", "Info", show) + options("loud", "DEBUG") + "</dict>");
  const auto settings = LogSettingsList::parse(text.data(), text.size());
  ASSERT_TRUE(settings);
  const LogSettings other = settings->forCategory("other");
  EXPECT_TRUE(other.info && !other.debug && other.privateData);
  const LogSettings loud = settings->forCategory("loud");
  EXPECT_TRUE(loud.debug && loud.privateData);
}

TEST(LogSettingsList, IsRefusedWithWhatIsWrong) {
  const std::pair<std::string, const char*> cases[] = {
      {list("<dict>" + options("one", "verbose") + "</dict>"), "one"},
      {list("<dict><key>one</key><dict><key>Level</key><string>debug</string></dict></dict>"), "one"},
      {"<plist><dict>", ""},
  };
  for (const auto& [text, what] : cases) {
    ErrorPtr error;
    EXPECT_FALSE(LogSettingsList::parse(text.data(), text.size(), &error)) << text;
    ASSERT_NE(error, nullptr) << text;
    EXPECT_NE(error->description().find(what), std::string::npos) << error->description();
  }
}

}  // namespace
