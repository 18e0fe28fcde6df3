#include "control_server/router.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "control_server/fixtures.h"

namespace vesko {
namespace {

const std::string token = "secret";

class RouterTest : public testing::Test {
 protected:
  HTTPResponse ask(const std::string& method, const std::string& path, const std::string& body = "",
                   const std::string& authorization = "Bearer secret") {
    const HTTPRequest request{method, path, {{"authorization", authorization}}, body};
    const auto route = router_.admit(request);
    return route ? router_.run(**route, request) : route.error();
  }

  test::FixedProbes probes_;
  Router router_{test::routesWithTools(probes_), token, probes_};
};

TEST_F(RouterTest, Authorization) {
  const HTTPResponse refused{401, R"({"message":"unauthorized"})", {"WWW-Authenticate: Bearer"}};
  for (const char* wrong : {"", "secret", "bearer secret", "Bearer secret2", "Bearer secre",
                            "Bearer  secret", "Basic secret"}) {
    SCOPED_TRACE(wrong);
    EXPECT_EQ(ask("GET", "/healthz", "", wrong), refused);
    EXPECT_EQ(ask("GET", "/nowhere", "", wrong), refused);
  }
  EXPECT_EQ(router_.admit(HTTPRequest{"GET", "/healthz", {}, ""}).error(), refused);
  EXPECT_EQ(ask("GET", "/healthz"), (HTTPResponse{200, R"({"ok":true})", {}}));
}

TEST_F(RouterTest, MatchesExactly) {
  const HTTPResponse notFound{404, R"({"message":"not found"})", {}};
  EXPECT_EQ(ask("POST", "/healthz"), notFound);
  EXPECT_EQ(ask("get", "/healthz"), notFound);
  EXPECT_EQ(ask("GET", "/healthz/"), notFound);
  EXPECT_EQ(ask("GET", "/divide"), notFound);
}

TEST_F(RouterTest, StatusReportsTheProbes) {
  EXPECT_EQ(
      ask("GET", "/status").body,
      R"({"screen_recording":true,"accessibility":true,"messages_automation":"unavailable"})");
  probes_.screenCapture = false;
  probes_.messages = {AutomationStatus::Kind::notDetermined};
  EXPECT_EQ(
      ask("GET", "/status").body,
      R"({"screen_recording":false,"accessibility":true,"messages_automation":"not_determined"})");
}

TEST_F(RouterTest, PermissionComesBeforeTheBody) {
  probes_.accessibility = false;
  EXPECT_EQ(ask("POST", "/divide", "not json"),
            (HTTPResponse{412, R"({"needs":"accessibility"})", {}}));
  EXPECT_EQ(ask("POST", "/rest", "not json"), (HTTPResponse{200, R"({"ok":true})", {}}));
}

TEST_F(RouterTest, ToolOutcomes) {
  struct Case {
    const char* body;
    HTTPResponse expected;
  };
  const std::vector<Case> cases{
      {R"({"a":6,"b":3})", {200, R"({"quotient":2})", {}}},
      {R"({"a":6})", {400, R"({"message":"invalid request"})", {}}},
      {"", {400, R"({"message":"invalid request"})", {}}},
      {R"({"a":6,"b":0})", {400, R"({"message":"b must not be 0"})", {}}},
      {R"({"a":1,"b":1})",
       {200, R"({"ok":false,"error":{"code":"tool_error","message":"ax_element_gone"}})", {}}},
      {R"({"a":2,"b":2})", {412, R"({"needs":"screen_recording"})", {}}},
      {R"({"a":3,"b":3})", {500, R"({"message":"broken"})", {}}},
      {R"({"a":1e308,"b":1e-308})", {200, R"({"message":"response encoding failed"})", {}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    EXPECT_EQ(ask("POST", "/divide", c.body), c.expected);
  }
}

TEST(HTTPResponse, Bytes) {
  EXPECT_EQ(serialize(errorResponse(401, "unauthorized")),
            "HTTP/1.1 401 Unauthorized\r\nContent-Type: application/json\r\n"
            "Content-Length: 26\r\nConnection: close\r\nWWW-Authenticate: Bearer\r\n\r\n"
            "{\"message\":\"unauthorized\"}");
  EXPECT_EQ(serialize({422, "", {}}),
            "HTTP/1.1 422 Unprocessable Content\r\nContent-Type: application/json\r\n"
            "Content-Length: 0\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(reasonPhrase(403), "Internal Server Error");
  EXPECT_EQ(reasonPhrase(413), "Payload Too Large");
}

}  // namespace
}  // namespace vesko
