#include "control_server/permission_routes.h"

#include <gtest/gtest.h>

#include "fakes/fake_permissions.h"

namespace vesko {
namespace {

using Kind = AutomationStatus::Kind;

TEST(PermissionRoutes, answerEveryOutcomeOfTheMessagesRequest) {
  struct Case {
    MessagesAutomationOutcome outcome;
    const char* body;
  };
  const Case cases[] = {
      {{{Kind::granted}}, R"({"granted":true})"},
      {{{Kind::granted}, true}, R"({"granted":true,"already_granted":true})"},
      {{{Kind::notDetermined}},
       R"({"granted":false,"error":"approval_required",)"
       R"("reason":"macOS Automation approval is still required"})"},
      {{{Kind::denied}},
       R"({"granted":false,"error":"approval_required",)"
       R"("reason":"Messages Automation is denied; enable it in System Settings"})"},
      {{{Kind::notRunning}},
       R"({"granted":false,"error":"request_failed",)"
       R"("reason":"Messages is not running and could not be launched"})"},
      {{{Kind::unknown}},
       R"({"granted":false,"error":"request_failed",)"
       R"("reason":"Messages Automation request returned an unknown status"})"},
      {{{Kind::unavailable, -1712}},
       R"({"granted":false,"error":"request_failed",)"
       R"("reason":"Messages Automation request failed with OSStatus -1712"})"},
  };
  for (const Case& c : cases) {
    const auto routes = permissionRoutes([&] { return c.outcome; });
    EXPECT_EQ(routes.front().handler({}), (HTTPResponse{200, c.body, {}}));
  }
}

TEST(PermissionRoutes, whatOperatesTheDesktopWaitsForPrivacyWindows) {
  fakes::FakePermissionProbes probes;
  std::vector<Route> routes;
  for (const char* path : {"/input/click", "/ax/action", "/ax/set-value", "/ax/snapshot",
                           "/window/list", "/clipboard/get"})
    routes.push_back({"POST", path, Precondition::accessibility,
                      [](const HTTPRequest&) { return HTTPResponse{}; }});
  routes = leavePrivacyToTheUser(std::move(routes), probes);
  for (const bool shown : {true, false}) {
    probes.change([&](auto& now) { now.privacyWindow = shown; });
    for (std::size_t i = 0; i < routes.size(); ++i)
      EXPECT_EQ(routes[i].handler({}).status, shown && i < 3 ? 400 : 200) << routes[i].path;
  }
}

}  // namespace
}  // namespace vesko
