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
  const auto expectAnswer = [&](auto ask, auto outcome, const Lines& lines, const Pages& pages) {
    SCOPED_TRACE(lines.front());
    requests.pages.clear();
    ask();
    requests.answer(std::move(outcome));
    EXPECT_EQ(logged(), lines);
    EXPECT_EQ(Pages(requests.pages.begin(), requests.pages.end()), pages);
  };
  const auto answer = [](auto status, bool asked) {
    return PermissionOutcome<decltype(status)>(PermissionAnswer{status, asked});
  };
  const auto automation = [&](Kind kind, bool asked, std::int32_t code = 0) {
    return answer(AutomationStatus{kind, code}, asked);
  };
  const auto accessibility = [this] { permissions.requestAccessibility(); };
  const auto screen = [this] { permissions.requestScreenRecording(); };
  const auto photos = [this] { permissions.requestPhotos(); };
  const auto messages = [this] { permissions.requestAutomation(AutomationTarget::messages); };
  const auto notes = [this] { permissions.requestAutomation(AutomationTarget::notes); };

  expectAnswer(accessibility, answer(true, true), {"accessibility request granted=true"}, {});
  expectAnswer(accessibility, answer(false, true), {"accessibility request granted=false"}, {});
  expectAnswer(accessibility, answer(false, false), {"accessibility request granted=false"},
               {settingsPages::accessibility});
  expectAnswer(accessibility, PermissionOutcome<bool>(std::unexpected("there is no display")),
               {"ERROR accessibility request could not be shown: there is no display",
                "accessibility request granted=false"},
               {});
  expectAnswer(screen, answer(true, true), {"screen recording request granted=true"}, {});
  expectAnswer(screen, answer(false, true), {"screen recording request granted=false"},
               {settingsPages::screenCapture});
  expectAnswer(photos, answer(Photos::full, true), {"photos read permission=full"}, {});
  expectAnswer(photos, answer(Photos::denied, false),
               {"photos read permission denied; opening System Settings"}, {settingsPages::photos});
  expectAnswer([this] { permissions.requestContacts(); }, answer(Contacts::granted, true),
               {"contacts request granted=true"}, {});
  expectAnswer(messages, automation(Kind::granted, true), {"automation request status=granted"},
               {});
  expectAnswer(messages, automation(Kind::denied, false), {"automation request status=denied"},
               {settingsPages::automation});
  expectAnswer(notes, automation(Kind::unavailable, true, -1712),
               {"notes automation request status=unavailable(-1712)"}, {});
  EXPECT_EQ(*state.photosPermission, Photos::denied);
  EXPECT_EQ(state.automationStatus->kind, Kind::denied);
  EXPECT_EQ(state.notesAutomationStatus->code, -1712);
  requests.settingsFailure = "no window";
  expectAnswer(screen, answer(false, true),
               {"screen recording request granted=false",
                "ERROR System Settings could not be opened: no window"},
               {settingsPages::screenCapture});
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

/// A worker waits while the main thread, this one, does the rest.
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
