#include "access/permission_monitor.h"

#include "access_fixture.h"

namespace vesko::fakes {
namespace {

using Kind = AutomationStatus::Kind;

class PermissionMonitorTest : public AccessFixture {
 protected:
  void begin() {
    monitor.seed();
    monitor.start();
    settle();
    logged();
  }
};

TEST_F(PermissionMonitorTest, publishesEveryStatusWithinASecondAndOnlyWhatChanged) {
  begin();
  probes.change([](GrantedPermissions& granted) {
    granted.accessibility = true;
    granted.photos = PhotosPermission::limited;
    granted.messages = {Kind::notRunning};
    granted.notes = {Kind::unavailable, -1712};
  });
  std::vector<AppField> set;
  const auto subscription = state.observe([&](AppField field) { set.push_back(field); });
  tick();
  EXPECT_TRUE(*state.accessibilityGranted);
  EXPECT_FALSE(*state.screenRecordingGranted);
  EXPECT_EQ(*state.photosPermission, PhotosPermission::limited);
  EXPECT_EQ(state.automationStatus->text(), "not_running");
  EXPECT_EQ(state.notesAutomationStatus->text(), "unavailable(-1712)");
  EXPECT_EQ(set, (std::vector{AppField::accessibilityGranted, AppField::photosPermission,
                              AppField::automationStatus, AppField::notesAutomationStatus}));
  EXPECT_EQ(daemonLaunches, 0);
}

TEST_F(PermissionMonitorTest, aTickWithoutAChangeReadsNothing) {
  begin();
  const int reads = probes.reads();
  for (int i = 0; i < 5; ++i) tick();
  EXPECT_EQ(probes.reads(), reads);
  ++grants.changes;
  grants.messagesGrant = {true, true};
  tick();
  EXPECT_GT(probes.reads(), reads);
  EXPECT_TRUE(*state.messagesAccessGranted);
  // Where the desktop tells of no changes there is nothing for it but to read.
  probes.tellChanges(false);
  for (int i = 0; i < 3; ++i) {
    const int before = probes.reads();
    tick();
    EXPECT_GT(probes.reads(), before);
  }
}

TEST_F(PermissionMonitorTest, aReadingThatWasReplacedIsDropped) {
  begin();
  const auto jobsAfter = [&](Duration time) {
    loop.advance(time);
    return queue.jobs.size();
  };
  probes.change([](GrantedPermissions& granted) { granted.accessibility = true; });
  EXPECT_EQ(jobsAfter(std::chrono::seconds(3)), 1U) << "one reading at a time";
  queue.run();  // read, and on its way to the main thread
  probes.change([](GrantedPermissions& granted) { granted.accessibility = false; });
  monitor.refresh();
  loop.runPosted();
  EXPECT_FALSE(*state.accessibilityGranted);
  settle();
  EXPECT_FALSE(*state.accessibilityGranted);
  // A change that comes while the probes are asked is not lost.
  monitor.refresh();
  queue.run();
  probes.change([](GrantedPermissions& granted) { granted.accessibility = true; });
  loop.runPosted();
  EXPECT_FALSE(*state.accessibilityGranted);
  tick();
  EXPECT_TRUE(*state.accessibilityGranted);
}

TEST_F(PermissionMonitorTest, aReadingThatCouldNotBeginIsTriedAgain) {
  probes.change([](GrantedPermissions& granted) { granted.accessibility = true; });
  queue.refuses = true;
  begin();
  tick();
  EXPECT_FALSE(*state.accessibilityGranted);
  queue.refuses = false;
  tick();
  EXPECT_TRUE(*state.accessibilityGranted);
}

TEST_F(PermissionMonitorTest, nothingFollowsItsStop) {
  begin();
  probes.change([](GrantedPermissions& granted) { granted.screenCapture = true; });
  loop.advance(std::chrono::seconds(1));
  queue.run();
  monitor.stop();
  loop.advance(std::chrono::seconds(5));
  EXPECT_FALSE(*state.screenRecordingGranted);
  EXPECT_EQ(lifetime.relaunches, 0);
  EXPECT_EQ(loop.pendingTimers(), 0U);
  EXPECT_TRUE(queue.jobs.empty());
}

TEST_F(PermissionMonitorTest, relaunchesTheDaemonForEachChangeOfItsGrants) {
  grants.messagesGrant = {true, true};
  probes.change(
      [](GrantedPermissions& granted) { granted.contacts = ContactsPermission::granted; });
  monitor.seed();
  EXPECT_TRUE(*state.contactsGranted) << "what the first daemon is launched with";
  monitor.start();
  settle();
  EXPECT_EQ(daemonLaunches, 0);
  EXPECT_EQ(logged(), Lines());

  int launches = 0;
  const auto step = [&](FolderGrant messages, FolderGrant notes, bool contacts,
                        const Lines& lines) {
    SCOPED_TRACE(lines.front());
    grants.messagesGrant = messages;
    grants.notesGrant = notes;
    ++grants.changes;
    probes.change([&](GrantedPermissions& granted) {
      granted.contacts = contacts ? ContactsPermission::granted : ContactsPermission::denied;
    });
    tick();
    EXPECT_EQ(logged(), lines);
    EXPECT_EQ(daemonLaunches, ++launches) << "once, however much changed";
  };
  step({true, false}, {}, true, {"messages grant=true canReadChatDB=false — relaunching daemon"});
  step({true, false}, {true, false}, true,
       {"notes grant=true canReadNoteStore=false — relaunching daemon"});
  step({true, false}, {}, true, {"notes grant revoked — relaunching daemon"});
  step({}, {true, true}, false,
       {"messages grant=false canReadChatDB=false — relaunching daemon",
        "notes grant=true canReadNoteStore=true — relaunching daemon",
        "contacts grant=false — relaunching daemon"});
}

TEST_F(PermissionMonitorTest, relaunchesTheDaemonTwoSecondsAfterThePhotosLibrary) {
  begin();
  const auto setLibrary = [&](bool granted) {
    grants.photosGrant = granted;
    ++grants.changes;
    tick();
  };
  setLibrary(true);
  EXPECT_EQ(logged(), Lines{"photos library grant acknowledged; relaunching daemon in 2 seconds"});
  EXPECT_EQ(daemonLaunches, 0);
  loop.advance(std::chrono::milliseconds(1999));
  EXPECT_EQ(daemonLaunches, 0);
  loop.advance(std::chrono::milliseconds(1));
  EXPECT_EQ(daemonLaunches, 1);
  setLibrary(false);
  EXPECT_EQ(logged(), Lines{"photos library grant revoked"});
  EXPECT_EQ(daemonLaunches, 2);
  // Another relaunch before the delay has passed tells the daemon of the library as well.
  setLibrary(true);
  probes.change(
      [](GrantedPermissions& granted) { granted.contacts = ContactsPermission::granted; });
  tick();
  EXPECT_EQ(daemonLaunches, 3);
  loop.advance(std::chrono::seconds(5));
  EXPECT_EQ(daemonLaunches, 3);
  setLibrary(false);
  setLibrary(true);
  daemonGrants.cancel();
  loop.advance(std::chrono::seconds(5));
  EXPECT_EQ(daemonLaunches, 4);
}

TEST_F(PermissionMonitorTest, relaunchesTheApplicationOnceForAScreenRecordingGrant) {
  begin();
  const auto setGranted = [&](bool granted) {
    probes.change([&](GrantedPermissions& all) { all.screenCapture = granted; });
    tick();
  };
  setGranted(true);
  EXPECT_EQ(logged(), (Lines{"screen recording newly granted; scheduling one-shot app relaunch",
                             "screen recording relaunch helper started"}));
  EXPECT_TRUE(*state.screenRecordingRestartPending);
  EXPECT_TRUE(UserDefaults(home / "defaults.plist").flag("ScreenRecordingRelaunchPending"));
  setGranted(false);
  setGranted(true);
  EXPECT_EQ(lifetime.relaunches, 1);

  // The next process, whichever it is told at its start.
  for (const bool launchedWithAccess : {true, false}) {
    SCOPED_TRACE(launchedWithAccess);
    UserDefaults nextDefaults(home / "defaults.plist");
    ASSERT_TRUE(nextDefaults.set("ScreenRecordingRelaunchPending", true));
    AppState next(nextDefaults);
    ScreenRecordingRelaunch nextRelaunch(
        {.state = next, .log = log, .defaults = nextDefaults, .application = lifetime},
        launchedWithAccess);
    nextRelaunch.update(launchedWithAccess);
    nextRelaunch.update(true);
    EXPECT_EQ(lifetime.relaunches, 1);
    EXPECT_FALSE(UserDefaults(home / "defaults.plist").flag("ScreenRecordingRelaunchPending"));
  }
}

TEST_F(PermissionMonitorTest, aRelaunchThatCannotStartLeavesTheApplicationAsItIs) {
  begin();
  lifetime.failure = "No such file or directory";
  probes.change([](GrantedPermissions& granted) { granted.screenCapture = true; });
  tick();
  EXPECT_EQ(logged(), (Lines{"screen recording newly granted; scheduling one-shot app relaunch",
                             "ERROR could not start screen recording relaunch helper: No such file "
                             "or directory"}));
  EXPECT_FALSE(*state.screenRecordingRestartPending);
  EXPECT_TRUE(*state.screenRecordingGranted);
  EXPECT_FALSE(UserDefaults(home / "defaults.plist").flag("ScreenRecordingRelaunchPending"));
}

}  // namespace
}  // namespace vesko::fakes
