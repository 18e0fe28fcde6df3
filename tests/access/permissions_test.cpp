#include "access/permissions.h"

#include <thread>

#include "access/automation_approval.h"
#include "access_fixture.h"

namespace vesko::fakes {
namespace {

using Kind = AutomationStatus::Kind;
using Photos = PhotosPermission;
using Contacts = ContactsPermission;

class PermissionsTest : public AccessFixture {
 protected:
  std::vector<std::string> openQuestions() const {
    std::vector<std::string> names;
    for (const auto& question : requests.open) names.push_back(question.what);
    return names;
  }
};

TEST_F(PermissionsTest, logsAndPublishesEachAnswerAndOpensTheSettingsWhereAnEarlierOneStands) {
  using Pages = std::vector<std::string_view>;
  struct Case {
    const char* name;
    std::function<void()> ask;
    std::function<void()> answer;
    Lines lines;
    Pages pages;
  };
  const auto automation = [](Kind kind, bool asked, std::int32_t code = 0) {
    return PermissionAnswer<AutomationStatus>{{kind, code}, asked};
  };
  const auto accessibility = [this] { permissions.requestAccessibility(); };
  const auto screen = [this] { permissions.requestScreenRecording(); };
  const auto photos = [this] { permissions.requestPhotos(); };
  const auto messages = [this] { permissions.requestAutomation(AutomationTarget::messages); };
  const auto notes = [this] { permissions.requestAutomation(AutomationTarget::notes); };
  const Case cases[] = {
      {"granted",
       accessibility,
       [&] { requests.answer<bool>(PermissionAnswer{true, true}); },
       {"accessibility request granted=true"},
       {}},
      {"refused now",
       accessibility,
       [&] { requests.answer<bool>(PermissionAnswer{false, true}); },
       {"accessibility request granted=false"},
       {}},
      {"refused before",
       accessibility,
       [&] { requests.answer<bool>(PermissionAnswer{false, false}); },
       {"accessibility request granted=false"},
       Pages{settingsPages::accessibility}},
      {"no display",
       accessibility,
       [&] { requests.answer<bool>(std::unexpected("there is no display")); },
       {"ERROR accessibility request could not be shown: there is no display",
        "accessibility request granted=false"},
       {}},
      {"screen granted",
       screen,
       [&] { requests.answer<bool>(PermissionAnswer{true, true}); },
       {"screen recording request granted=true"},
       {}},
      {"screen refused",
       screen,
       [&] { requests.answer<bool>(PermissionAnswer{false, true}); },
       {"screen recording request granted=false"},
       Pages{settingsPages::screenCapture}},
      {"photos full",
       photos,
       [&] { requests.answer<Photos>(PermissionAnswer{Photos::full, true}); },
       {"photos read permission=full"},
       {}},
      {"photos denied",
       photos,
       [&] { requests.answer<Photos>(PermissionAnswer{Photos::denied, false}); },
       {"photos read permission denied; opening System Settings"},
       Pages{settingsPages::photos}},
      {"contacts",
       [this] { permissions.requestContacts(); },
       [&] { requests.answer<Contacts>(PermissionAnswer{Contacts::granted, true}); },
       {"contacts request granted=true"},
       {}},
      {"messages granted",
       messages,
       [&] { requests.answer<AutomationStatus>(automation(Kind::granted, true)); },
       {"automation request status=granted"},
       {}},
      {"messages denied before",
       messages,
       [&] { requests.answer<AutomationStatus>(automation(Kind::denied, false)); },
       {"automation request status=denied"},
       Pages{settingsPages::automation}},
      {"notes",
       notes,
       [&] { requests.answer<AutomationStatus>(automation(Kind::unavailable, true, -1712)); },
       {"notes automation request status=unavailable(-1712)"},
       {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    requests.pages.clear();
    c.ask();
    EXPECT_EQ(requests.open.size(), 1U);
    c.answer();
    EXPECT_EQ(logged(), c.lines);
    EXPECT_EQ(Pages(requests.pages.begin(), requests.pages.end()), c.pages);
  }
  EXPECT_EQ(*state.photosPermission, Photos::denied);
  EXPECT_EQ(state.automationStatus->kind, Kind::denied);
  EXPECT_EQ(state.notesAutomationStatus->code, -1712);
  requests.settingsFailure = "no window";
  permissions.requestScreenRecording();
  requests.answer<bool>(PermissionAnswer{false, true});
  EXPECT_EQ(logged().back(), "ERROR System Settings could not be opened: no window");
}

TEST_F(PermissionsTest, anAnswerReplacesTheReadingsUnderWay) {
  monitor.start();
  queue.run();  // not granted yet, and on its way
  permissions.requestAccessibility();
  probes.change([](GrantedPermissions& granted) { granted.accessibility = true; });
  const auto revision = state.permissionRefreshRevision;
  requests.answer<bool>(PermissionAnswer{true, true});
  EXPECT_GT(state.permissionRefreshRevision, revision);
  EXPECT_TRUE(*state.accessibilityGranted);
  loop.runPosted();
  EXPECT_TRUE(*state.accessibilityGranted);
  settle();
  EXPECT_TRUE(*state.accessibilityGranted);
}

TEST_F(PermissionsTest, oneQuestionIsOpenAtATimeAndASecondRequestJoinsIt) {
  std::string told;
  const auto note = [&](std::string name) {
    return [&told, name](Permissions::AutomationOutcome outcome) {
      told += name + "=" + outcome.status.text() + ";";
    };
  };
  permissions.requestPhotos();
  permissions.requestAutomation(AutomationTarget::messages, note("first"));
  permissions.requestPhotos();
  permissions.requestAutomation(AutomationTarget::notes, note("notes"));
  permissions.requestAutomation(AutomationTarget::messages, note("second"));
  EXPECT_EQ(openQuestions(), Lines{"photos"});
  requests.answer<Photos>(PermissionAnswer{Photos::full, true});
  EXPECT_EQ(openQuestions(), Lines{"messages"});
  requests.answer<AutomationStatus>(PermissionAnswer<AutomationStatus>{{Kind::granted}, true});
  EXPECT_EQ(told, "first=granted;second=granted;");
  EXPECT_EQ(openQuestions(), Lines{"notes"});
  permissions.cancel();
  EXPECT_TRUE(requests.open.empty());
  permissions.requestContacts();
  EXPECT_EQ(openQuestions(), Lines{"contacts"});
  EXPECT_EQ(told, "first=granted;second=granted;");
}

/// Two workers wait while the main thread, this one, does the rest.
class AutomationApprovalTest : public PermissionsTest {
 protected:
  using Outcome = AutomationApproval::Outcome;

  /// Runs the main loop until `done`; the test's own time limit is the bound.
  void runUntil(const std::function<bool()>& done) {
    while (!done()) {
      loop.runPosted();
      std::this_thread::yield();
    }
  }
};

TEST_F(AutomationApprovalTest, workersWaitForTheSameAnswer) {
  AutomationApproval approval(loop, permissions, std::chrono::minutes(10));
  std::vector<Outcome> outcomes(AutomationApproval::maxWaiting);
  std::vector<std::thread> workers;
  for (Outcome& outcome : outcomes) workers.emplace_back([&] { outcome = approval.request(); });
  runUntil([&] { return approval.waiting() == AutomationApproval::maxWaiting; });
  // The workers are taken: nobody else may wait.
  EXPECT_EQ(approval.request().status.kind, Kind::notDetermined);
  runUntil([&] { return requests.open.size() == 1; });
  loop.runPosted();
  EXPECT_EQ(openQuestions(), Lines{"messages"});
  requests.answer<AutomationStatus>(PermissionAnswer<AutomationStatus>{{Kind::granted}, true});
  for (std::thread& worker : workers) worker.join();
  for (const Outcome& outcome : outcomes) {
    EXPECT_EQ(outcome.status.kind, Kind::granted);
    EXPECT_FALSE(outcome.alreadyGranted);
  }
  // Granted before: nobody is asked.
  std::thread worker([&] { outcomes[0] = approval.request(); });
  runUntil([&] { return requests.open.size() == 1; });
  requests.answer<AutomationStatus>(PermissionAnswer<AutomationStatus>{{Kind::granted}, false});
  worker.join();
  EXPECT_TRUE(outcomes[0].alreadyGranted);
}

TEST_F(AutomationApprovalTest, nobodyWaitsForEver) {
  AutomationApproval impatient(loop, permissions, std::chrono::milliseconds(1));
  Outcome outcome{{Kind::granted}};
  std::thread([&] { outcome = impatient.request(); }).join();
  EXPECT_EQ(outcome.status.kind, Kind::notDetermined);
  // The question stays, and an answer that comes too late finds nobody.
  loop.runPosted();
  requests.answer<AutomationStatus>(PermissionAnswer<AutomationStatus>{{Kind::granted}, true});
  EXPECT_EQ(state.automationStatus->kind, Kind::granted);

  AutomationApproval approval(loop, permissions, std::chrono::minutes(10));
  std::thread worker([&] { outcome = approval.request(); });
  runUntil([&] { return requests.open.size() == 1; });
  approval.cancel();
  worker.join();
  EXPECT_EQ(outcome.status.kind, Kind::notDetermined);
  EXPECT_EQ(approval.request().status.kind, Kind::notDetermined);
}

}  // namespace
}  // namespace vesko::fakes
