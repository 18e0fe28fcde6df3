#include "state/app_state.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/temporary_directory.h"

namespace vesko {
namespace {

class AppStateTest : public ::testing::Test {
 protected:
  AppStateTest() { adoptMainThread(); }

  support::TemporaryDirectory root;
  std::filesystem::path file = root / "Library/Preferences/app.plist";
};

TEST_F(AppStateTest, consumesTheStartUpKeysOnTheDisk) {
  {
    UserDefaults defaults(file);
    ASSERT_TRUE(defaults.set("ScreenRecordingRelaunchPending", true));
    ASSERT_TRUE(defaults.set("historyImportEnabled", "yes"));
    ASSERT_TRUE(defaults.set("KeepAwakeForVesko", true));
  }
  UserDefaults defaults(file);
  const AppState state(defaults);
  EXPECT_TRUE(state.screenRecordingRelaunch);
  EXPECT_TRUE(state.keepAwake.get());
  const UserDefaults again(file);
  EXPECT_EQ(again.value("ScreenRecordingRelaunchPending"), nullptr);
  EXPECT_EQ(again.value("historyImportEnabled"), nullptr);
  EXPECT_TRUE(again.flag("KeepAwakeForVesko"));
}

TEST_F(AppStateTest, tellsObserversOfEverySetUntilTheyLeave) {
  UserDefaults defaults(file);
  AppState state(defaults);
  std::vector<AppField> seen;
  auto subscription = state.observe([&](AppField field) {
    seen.push_back(field);
    // Setting a field from within a notice is told like any other.
    if (field == AppField::pairing) state.status.set(Status::needsCode());
  });
  state.pairing.set(false);
  EXPECT_EQ(seen, (std::vector{AppField::pairing, AppField::status}));
  EXPECT_EQ(*state.status, Status::needsCode());
  subscription = {};
  state.pairing.set(true);
  EXPECT_EQ(seen.size(), 2U);
}

TEST_F(AppStateTest, anObserverMayLeaveWhileItIsTold) {
  UserDefaults defaults(file);
  AppState state(defaults);
  int first = 0;
  int second = 0;
  Subscription other;
  const auto kept = state.observe([&](AppField) {
    ++first;
    other = {};
  });
  other = state.observe([&](AppField) { ++second; });
  state.keepAwake.set(true);
  state.keepAwake.set(false);
  EXPECT_EQ(first, 2);
  EXPECT_EQ(second, 0);
}

TEST_F(AppStateTest, defaultsKeepEveryTypeAndLeaveOtherKeysAlone) {
  {
    UserDefaults defaults(file);
    ASSERT_TRUE(defaults.set("flag", false));
    ASSERT_TRUE(defaults.set("text", "caf\xC3\xA9 <&>"));
    ASSERT_TRUE(defaults.set("gone", true));
    ASSERT_TRUE(defaults.remove("gone"));
  }
  const UserDefaults defaults(file);
  EXPECT_EQ(defaults.text("text"), "caf\xC3\xA9 <&>");
  EXPECT_FALSE(defaults.flag("flag"));
  ASSERT_NE(defaults.value("flag"), nullptr);
  EXPECT_EQ(defaults.value("gone"), nullptr);
  EXPECT_FALSE(defaults.flag("text")) << "a value of another type counts as absent";
  struct stat info{};
  ASSERT_EQ(::stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U, 0600U);
}

TEST_F(AppStateTest, damagedDefaultsAreKeptAsideAndReported) {
  for (const std::string& content :
       {std::string(), std::string("not a list"), std::string("<plist><array/></plist>"),
        std::string("bplist00garbage"), std::string(PropertyList::maxBytes + 1, ' ')}) {
    SCOPED_TRACE(content.substr(0, 40));
    support::writeFile(file, content);
    UserDefaults defaults(file);
    EXPECT_TRUE(defaults.loadProblem());
    ASSERT_TRUE(defaults.set("key", true));
    EXPECT_EQ(support::contentOf(file.string() + ".damaged"), content);
    EXPECT_TRUE(UserDefaults(file).flag("key"));
  }
}

TEST_F(AppStateTest, aWriteThatFailsSaysSoAndStillHoldsForTheRun) {
  support::writeFile(root / "Library", "a file in the way");
  UserDefaults defaults(file);
  EXPECT_TRUE(defaults.loadProblem());
  EXPECT_FALSE(defaults.set("key", true));
  EXPECT_TRUE(defaults.flag("key"));
}

}  // namespace
}  // namespace vesko
