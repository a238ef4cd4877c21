// The settings file: what is taken, what is refused and where, how it is changed, and who is told.
#include "companions/settings_store.hpp"

#include "companions/settings_error.hpp"
#include "platform/file_replacement.hpp"
#include "support/testing.hpp"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

std::string repeated(const std::string& text, int times) {
  std::string all;
  for (int i = 0; i < times; ++i) all += text;
  return all;
}

TEST(SettingsDocument, SaysWhereAFileIsBroken) {
  const struct {
    std::string text;
    std::string place;
  } cases[] = {
      {"[user]\nx = = 3\n", "line 2, column 5: "},
      {"allow-list = 'a'\n", "line 1, column 14: "},
      {"allow-list = [\n  'a',\n  7,\n]\n", "line 3, column 3: "},
      {"allow-list = ['']\n", "line 1, column 15: "},
      {"user = 3\n", "line 1, column 8: "},
      {"[system]\nx = 1\n\n[sytem]\ny = 2\n", "line 4, column "},
      {"[user]\n'' = 1\n", "line 2, column 1: "},
      {"[user]\nx = 1\nx = 2\n", "line 3, column "},
      {"[user]\nwhen = 2020-01-01\n", "line 2, column 8: "},
      {"[user]\nx = [1, nan]\n", "line 2, column 9: "},
      {"[user]\nx = \"a\\u0000\"\n", "line 2, column 5: "},
      {"[user]\nx = 'a'\ny = '\xff'\n", "line 3, column 1: "},
      {"[user]\n# \"\nx = " + std::string(100000, '['), "line 3, column 21: "},
      {"[user]\nx = \"\"\"a\\\"\"\"\"\n" + std::string(100000, 'a') + repeated(".a", 50000) + " = 1",
       "line 3, column "},
      {"[user.a.a.a.a.a.a.a.a]\nb.b.b.b.b.b.b.b.b.b = 1\n", "line 2, column "},
      {"allow-list = [" + repeated("'a',", 17000) + "]", "line 1, column 1: "},
      {std::string(kMostSettingsValues * 16 + 1, '#'), "line 1, column 262145: "},
  };
  for (const auto& [text, place] : cases) {
    ErrorPtr error;
    EXPECT_FALSE(SettingsDocument::parse(text, &error)) << text.substr(0, 80);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->localizedDescription().substr(0, place.size()), place) << error->localizedDescription();
  }
}

TEST(SettingsDocument, HoldsEveryKindOfSetting) {
  const auto document = SettingsDocument::parse(
      "\xef\xbb\xbf"
      "allow-list = ['https://a.example/']\n[user]\ns = 'x.y.z'\ni = -3\nf = 2.5\nb = true\n"
      "d = 1970-01-01T01:00:00.5+01:00\nt = {a = [1, [2]]}\n[user.sub]\nk = 1\n");
  ASSERT_TRUE(document);
  EXPECT_EQ(document->settings().user, (Dictionary{{"s", "x.y.z"},
                                                   {"i", -3},
                                                   {"f", 2.5},
                                                   {"b", true},
                                                   {"d", Date{500000000}},
                                                   {"t", Dictionary{{"a", Array{1, Array{2}}}}},
                                                   {"sub", Dictionary{{"k", 1}}}}));
  EXPECT_EQ(document->settings().allowList, Array{"https://a.example/"});
}

TEST(SettingsDocument, ChangesNothingButWhatIsAskedFor) {
  const struct {
    std::string before;
    std::string key;
    Value value;
    std::string after;
  } cases[] = {
      {"", "a", 2, "[system]\na = 2\n"},
      {"# top\n[user]\nu = 1", "a", 2, "# top\n[user]\nu = 1\n\n[system]\na = 2\n"},
      {"[system] # why\n\n[user]\n", "a", 2, "[system] # why\na = 2\n\n[user]\n"},
      {"[system]\n  'é' = 'ß' # é\n\n# end\n[system.sub]\nk = 1\n", "a", true,
       "[system]\n  'é' = 'ß' # é\n  a = true\n\n# end\n[system.sub]\nk = 1\n"},
      {"[system]\r\nx = 1\r\n", "a", 1.0, "[system]\r\nx = 1\r\na = 1.0\r\n"},
      {"\xef\xbb\xbf[system]\na=1#one\nb = [\n 1, # x\n 2 ]", "a", 2,
       "\xef\xbb\xbf[system]\na=2#one\nb = [\n 1, # x\n 2 ]"},
      {"[system]\nb = [\n 1, # x\n 2 ]", "a", "q\"\n", "[system]\nb = [\n 1, # x\n 2 ]\na = \"q\\\"\\n\"\n"},
      {"[system]\n\"a b\" = '''\nlong\n''' # kept\nx = 1\n", "a b", Value(), "[system]\n# kept\nx = 1\n"},
      {"[system]\n# about a\na = 1\nx = 1\n", "a", Value(), "[system]\n# about a\nx = 1\n"},
      {"system = { x = 1, a = 2 } # t\n", "a", Value(), "system = { x = 1 } # t\n"},
      {"[system.sub]\nk = 1\n", "a", std::uint64_t{7}, "[system.sub]\nk = 1\n\n[system]\na = 7\n"},
      {"[system]\na = 1\n", "a", Dictionary{{"x y", Array{1, "z"}}},
       "[system]\na = { \"x y\" = [ 1, \"z\" ] }\n"},
  };
  for (const auto& [before, key, value, after] : cases) {
    const auto document = SettingsDocument::parse(before);
    ASSERT_TRUE(document) << before;
    ErrorPtr error;
    const auto changed = document->withChanges(SettingsTable::system, {{key, value}}, &error);
    ASSERT_TRUE(changed) << before << error->localizedDescription();
    EXPECT_EQ(changed->text(), after);
  }
}

TEST(SettingsDocument, RefusesChangesThatItCannotMake) {
  const struct {
    std::string text;
    std::string key;
    Value value;
    SettingsError code;
  } cases[] = {
      {"[user]\na = 1\n", "a", Value(), SettingsError::noSuchSetting},
      {"", "", 1, SettingsError::badValue},
      {"", "a", Data("x", 1), SettingsError::badValue},
      {"", "a", Array{std::uint64_t{1} << 63}, SettingsError::badValue},
      {"", "a", "\xff", SettingsError::badValue},
      {"[system.a]\nk = 1\n", "a", 2, SettingsError::notEditable},
      {"system.x = 1\n", "a", 2, SettingsError::notEditable},
      {"[system]\na.b = 1\n", "a", Value(), SettingsError::notEditable},
  };
  for (const auto& [text, key, value, code] : cases) {
    ErrorPtr error;
    EXPECT_FALSE(SettingsDocument::parse(text)->withChanges(SettingsTable::system, {{key, value}}, &error));
    ASSERT_NE(error, nullptr) << text << key;
    EXPECT_EQ(error->code(), static_cast<std::int64_t>(code)) << text << key;
  }
}

TEST(SettingsDocument, EditsTheAllowListEntryByEntry) {
  const std::string list =
      "# list\nallow-list = [\n  'a', # about a\n  'b',\n  # about c\n  'c'\n] # end\n[user]\n";
  const struct {
    std::string before;
    Array wanted;
    std::string after;
  } cases[] = {
      {"[user]\n", {"x"}, "allow-list = [ \"x\" ]\n\n[user]\n"},
      {"allow-list = [] # none\n", {"x", "y"}, "allow-list = [\"x\", \"y\"] # none\n"},
      {"allow-list = ['a', 'b', 'c']", {"a", "c", "d"}, "allow-list = ['a', 'c', \"d\"]"},
      {"allow-list = ['a', 'b']", {}, "allow-list = []"},
      {list,
       {"a", "c", "d"},
       "# list\nallow-list = [\n  'a', # about a\n  # about c\n  'c',\n  \"d\",\n] # end\n[user]\n"},
      {list, {"b"}, "# list\nallow-list = [\n  # about a\n  'b',\n  # about c\n] # end\n[user]\n"},
  };
  for (const auto& [before, wanted, after] : cases) {
    ErrorPtr error;
    const auto changed = SettingsDocument::parse(before)->withAllowList(wanted, &error);
    ASSERT_TRUE(changed) << before << error->localizedDescription();
    EXPECT_EQ(changed->text(), after);
  }
  EXPECT_FALSE(SettingsDocument::parse("")->withAllowList({"a", 1}));
}

class FollowedSettings : public RecordedTest {
 protected:
  SettingsStore::Observer observer() {
    return [this](const SettingsStore::Change& change) {
      settingsChanges_ += change.settings ? 1 : 0;
      allowListChanges_ += change.allowList ? 1 : 0;
    };
  }
  bool waitFor(int settings, int allowList) const {
    return eventually([&] { return settingsChanges_ == settings && allowListChanges_ == allowList; });
  }
  static Dictionary systemOf(const SettingsStore& store) { return store.current()->system; }

  const std::string file_ = folder.path("settings.toml");
  const std::string state_ = folder.path("state.toml");
  std::atomic<int> settingsChanges_ = 0;
  std::atomic<int> allowListChanges_ = 0;
};

TEST_F(FollowedSettings, FollowsThePersonWhoEditsAndRemoves) {
  SettingsStore store(file_, state_, observer());
  EXPECT_EQ(*store.current(), Settings());
  store.follow();
  fs::rename(folder.write("new", "[system]\nk = 1\n"), file_);
  ASSERT_TRUE(waitFor(1, 0));
  folder.write("settings.toml", "allow-list = ['a']\n[system]\nk = 1 # the same\n");
  ASSERT_TRUE(waitFor(1, 1));
  fs::remove(file_);
  ASSERT_TRUE(waitFor(2, 2));
  EXPECT_EQ(*store.current(), Settings());
}

TEST_F(FollowedSettings, NeverHadAGoodFileAnswersWithAnErrorUntilItHas) {
  folder.write("settings.toml", "nonsense");
  SettingsStore store(file_, state_, observer());
  ErrorPtr error;
  EXPECT_EQ(store.current(&error), nullptr);
  EXPECT_NE(error->localizedDescription().find("line 1, column 9"), std::string::npos)
      << error->localizedDescription();
  EXPECT_FALSE(store.keep({{"k", Value()}}));
  EXPECT_EQ(store.change(SettingsTable::system, {{"k", 3}})->code(),
            static_cast<std::int64_t>(SettingsError::broken));
  EXPECT_EQ(contentOf(file_), "nonsense");
  folder.write("settings.toml", "");
  store.reload(true);
  EXPECT_NE(store.current(), nullptr);
  EXPECT_TRUE(waitFor(1, 1));
}

TEST_F(FollowedSettings, AHandEditBetweenReadingAndWritingIsNotLost) {
  const std::string mine = "[system]\na = 1\n";
  folder.write("settings.toml", mine);
  folder.write("settings.toml", "[system]\na = 2 # by hand\n");
  EXPECT_EQ(replaceFile(file_, mine, "[system]\na = 3\n"), FileReplacement::changedMeanwhile);
  EXPECT_EQ(replaceFile(file_, std::nullopt, ""), FileReplacement::changedMeanwhile);
  fs::create_symlink("nowhere", state_);
  EXPECT_EQ(replaceFile(state_, std::nullopt, ""), FileReplacement::failed);
  fs::remove(state_);
  EXPECT_EQ(contentOf(file_), "[system]\na = 2 # by hand\n");
  // A person who replaces the file all the time while the daemon changes another setting.
  SettingsStore store(file_, state_, nullptr);
  std::thread person([&] {
    for (int i = 1; i <= 200; ++i)
      fs::rename(folder.write("new", "[system]\nhand = " + std::to_string(i) + "\n"), file_);
  });
  for (int i = 0; i < 50; ++i) static_cast<void>(store.change(SettingsTable::user, {{"own", i}}));
  person.join();
  store.reload(true);
  EXPECT_EQ(systemOf(store), (Dictionary{{"hand", 200}}));
  // An editor that empties the file first and has it open until the text is written.
  std::ofstream editor(file_);
  EXPECT_EQ(store.change(SettingsTable::user, {{"own", 1}})->code(),
            static_cast<std::int64_t>(SettingsError::busy));
  EXPECT_TRUE(store.reload(false)) << "it is just being saved";
  editor << "[system]\nhand = 300\n" << std::flush;
  EXPECT_EQ(store.change(SettingsTable::user, {{"own", 1}}), nullptr);
  EXPECT_EQ(systemOf(store), (Dictionary{{"hand", 300}}));
  fs::remove(file_);
  EXPECT_EQ(store.setAllowList({"a"})->code(), static_cast<std::int64_t>(SettingsError::busy));
  EXPECT_FALSE(store.reload(true)) << "it is meant so";
  EXPECT_EQ(store.setAllowList({"a"}), nullptr);
  EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), {}), 1) << "no draft is left";
}

TEST_F(FollowedSettings, AChangeKeepsModeAndLinkAndTellsOnce) {
  const std::string target = folder.write("elsewhere/real.toml", "# mine\n");
  ASSERT_EQ(::chmod(target.c_str(), 0640), 0);
  const uid_t owner = ::geteuid() == 0 ? 65534 : ::geteuid();
  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(target.c_str(), owner, owner), 0);
  }
  fs::create_symlink(target, file_);
  SettingsStore store(file_, state_, observer());
  EXPECT_EQ(store.change(SettingsTable::system, {{"wisp-config-state", 2}, {"b", "x"}}), nullptr);
  EXPECT_EQ(store.change(SettingsTable::system, {{"b", "x"}}), nullptr);
  EXPECT_EQ(store.setAllowList({"a"}), nullptr);
  EXPECT_TRUE(waitFor(1, 1));
  EXPECT_EQ(contentOf(target),
            "allow-list = [ \"a\" ]\n\n# mine\n\n[system]\nb = \"x\"\nwisp-config-state = 2\n");
  EXPECT_TRUE(fs::is_symlink(file_));
  struct stat status {};
  ASSERT_EQ(::stat(target.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  EXPECT_EQ(status.st_uid, owner);
  if (::geteuid() == 0) return;  // whom no mode stops
  ASSERT_EQ(::chmod(folder.path("elsewhere").c_str(), 0555), 0);
  EXPECT_EQ(store.setAllowList({})->code(), static_cast<std::int64_t>(SettingsError::notWritten));
  ASSERT_EQ(::chmod(folder.path("elsewhere").c_str(), 0755), 0);
}

TEST_F(FollowedSettings, WhatItKeepsItselfLiesOverTheFileAndOutlivesIt) {
  folder.write("settings.toml", "[system]\nk = 1\nwisp-error-state = 9\n");
  const Dictionary kept{{"wisp-error-state", 5}, {"wisp-error-reason", "no\n\"answer\""}};
  {
    SettingsStore store(file_, state_, observer());
    EXPECT_TRUE(store.keep(kept));
    EXPECT_FALSE(store.keep(kept));
    EXPECT_EQ(systemOf(store).at("wisp-error-state"), Value(5)) << "at once";
    store.writeState();
    store.writeState();
    EXPECT_TRUE(waitFor(1, 0));
  }
  SettingsStore store(file_, state_, observer());
  EXPECT_EQ(systemOf(store),
            (Dictionary{{"k", 1}, {"wisp-error-state", 5}, {"wisp-error-reason", "no\n\"answer\""}}));
  EXPECT_TRUE(store.keep({{"wisp-error-state", Value()}, {"wisp-error-reason", Value()}}));
  EXPECT_EQ(systemOf(store).at("wisp-error-state"), Value(9));
  folder.write("state.toml", "nonsense");
  EXPECT_NE(SettingsStore(file_, state_, nullptr).current(), nullptr);
  fs::remove(state_);
  fs::create_directory(state_);
  store.writeState();
  const auto lines = recorder.lines();
  EXPECT_NE(lines.back().message.find("cannot be read: Is a directory"), std::string::npos);
}

}  // namespace
