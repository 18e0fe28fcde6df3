// The portable half of the application and window tools, asked as the helper asks.
#include "tools/app_window_control.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "control_server/tool_routes.h"
#include "fakes/fake_applications.h"

namespace vesko {
namespace {

struct Ask {
  const char* path;
  const char* body;
  const char* answer;
};

class AppWindowTest : public testing::Test {
 protected:
  AppWindowTest() {
    applications.install({"org.example.Editor", "Éditeur", "Editor"});
    applications.install({"org.example.Paint", "Paint", "Paint"});
    applications.install({"org.example.Broken", "Broken", "Broken"}, "no such file");
    applications.add({.pid = 11, .bundleIdentifier = "org.example.Editor", .name = "Éditeur"});
    applications.add({.pid = 12, .name = "XCalc"});
    applications.add({.pid = 13, .bundleIdentifier = "org.example.Editor", .name = "Éditeur"});
    windows.add({.number = 101, .pid = 11, .title = "One", .frame = {1, 2, 300, 200}});
    windows.add({.number = 102, .pid = 12, .minimized = true});
    windows.add({.number = 103, .pid = 13, .title = "Three", .focused = true});
  }

  std::string ask(std::string_view path, std::string body) {
    for (const Route& route : appWindowRoutes(control)) {
      EXPECT_EQ(route.precondition, Precondition::accessibility);
      if (route.path != path || route.method != "POST") continue;
      const HTTPResponse answer = route.handler({"POST", std::string(path), {}, std::move(body)});
      return std::to_string(answer.status) + " " + answer.body;
    }
    return "no route";
  }
  void expect(const std::vector<Ask>& asks) {
    for (const Ask& each : asks) {
      SCOPED_TRACE(std::string(each.path) + " " + each.body);
      EXPECT_EQ(ask(each.path, each.body), each.answer);
    }
  }
  void listAll() { ask("/window/list", "{}"); }

  static constexpr const char* ok = R"(200 {"ok":true})";
  static constexpr const char* noWindow = R"(400 {"message":"window not found"})";
  static constexpr const char* noApplication = R"(400 {"message":"application not found"})";
  static constexpr const char* notOne =
      R"(400 {"message":"supply exactly one of bundle_id or name"})";

  fakes::FakeApplications applications;
  fakes::FakeWindowSystem windows{applications};
  AppWindowControl control{applications, windows};
};

TEST_F(AppWindowTest, FindsApplications) {
  applications.add({.pid = 14});
  expect({
      {"/app/launch", "{}", notOne},
      {"/app/quit", R"({"bundle_id":"a","name":"b"})", notOne},
      {"/app/activate", R"({"bundle_id":null})", notOne},
      {"/window/list", R"({"bundle_id":"a","name":"b"})", notOne},
      {"/app/activate", R"({"bundle_id":7})", R"(400 {"message":"invalid request"})"},
      {"/app/activate", R"({"bundle_id":"org.example.Paint"})", noApplication},
      {"/app/activate", R"({"bundle_id":""})", noApplication},
      {"/app/quit", R"({"name":"Paint"})", noApplication},
      {"/window/list", R"({"name":"nobody"})", noApplication},
      {"/app/launch", R"({"bundle_id":"../etc"})", noApplication},
      {"/app/quit", R"({"name":""})", noApplication},
      {"/app/activate", R"({"name":"ÉDITEUR"})", ok},
      {"/app/launch", R"({"name":"Broken"})",
       R"(400 {"message":"application launch failed: no such file"})"},
      {"/app/launch", R"({"name":"paint"})", R"(200 {"ok":true,"pid":5000})"},
      {"/app/launch", R"({"bundle_id":"org.example.Paint"})", R"(200 {"ok":true,"pid":5000})"},
      {"/app/launch", R"({"name":"editor"})", R"(200 {"ok":true,"pid":11})"},
      {"/app/launch", R"({"name":"xcalc"})", R"(200 {"ok":true,"pid":12})"},
      {"/app/quit", R"({"name":"xcalc"})", ok},
      {"/app/quit", R"({"name":"xcalc"})", noApplication},
  });
}

TEST_F(AppWindowTest, PrefersTheExactName) {
  applications.add({.pid = 21, .name = "calc"});
  applications.add({.pid = 22, .name = "Calc"});
  expect({{"/app/activate", R"({"name":"Calc"})", ok}});
  EXPECT_EQ(applications.frontmost()->pid, 22);
  expect({{"/app/quit", R"({"name":"calc"})", ok}, {"/app/quit", R"({"name":"CALC"})", ok}});
  EXPECT_FALSE(applications.process(21) || applications.process(22));
}

TEST_F(AppWindowTest, ActivatesTheInstanceInFrontAndQuitsAll) {
  expect({{"/app/activate", R"({"bundle_id":"org.example.Editor"})", ok}});
  EXPECT_EQ(applications.frontmost()->pid, 13);
  applications.refuseActivation(13);
  applications.refuseQuit(11);
  expect({
      {"/app/activate", R"({"bundle_id":"org.example.Editor"})",
       R"(400 {"message":"could not activate application"})"},
      {"/app/quit", R"({"bundle_id":"org.example.Editor"})",
       R"(400 {"message":"application rejected quit request"})"},
  });
  EXPECT_TRUE(applications.process(11));
  EXPECT_FALSE(applications.process(13));
}

TEST_F(AppWindowTest, ListsFrontToBack) {
  constexpr const char* third =
      R"({"bundle_id":"org.example.Editor","title":"Three","window_id":103,)"
      R"("frame":{"x":0,"y":0,"w":0,"h":0},"focused":true,"minimized":false})";
  constexpr const char* second = R"({"bundle_id":"","title":"Unknown","window_id":102,)"
                                 R"("frame":{"x":0,"y":0,"w":0,"h":0},"focused":false,)"
                                 R"("minimized":true})";
  constexpr const char* first = R"({"bundle_id":"org.example.Editor","title":"One",)"
                                R"("window_id":101,"frame":{"x":1,"y":2,"w":300,"h":200},)"
                                R"("focused":false,"minimized":false})";
  const auto answer = [](std::initializer_list<const char*> entries) {
    std::string text;
    for (const char* entry : entries) text += (text.empty() ? "" : ",") + std::string(entry);
    return "200 {\"windows\":[" + text + "]}";
  };
  EXPECT_EQ(ask("/window/list", "{}"), answer({third, second, first}));
  EXPECT_EQ(ask("/window/list", R"({"name":"XCalc"})"), answer({second}));
  EXPECT_EQ(ask("/window/list", R"({"bundle_id":"org.example.Editor"})"), answer({third, first}));
  windows.failListing(AXError::cannotComplete);
  EXPECT_EQ(ask("/window/list", "{}"),
            R"(400 {"message":"list windows failed with AX error -25204"})");
}

TEST_F(AppWindowTest, ActsOnListedWindows) {
  expect({{"/window/focus", R"({"window_id":101})", noWindow}});
  listAll();
  expect({
      {"/window/focus", R"({"window_id":102})", ok},
      {"/window/move", R"({"window_id":101,"x":-7,"y":8.5})", ok},
      {"/window/resize", R"({"window_id":101,"w":640,"h":480})", ok},
      {"/window/minimize", R"({"window_id":101})", ok},
      {"/window/fullscreen", R"({"window_id":103})", ok},
  });
  EXPECT_TRUE(windows.window(102)->focused && !windows.window(102)->minimized);
  EXPECT_EQ(windows.window(101)->frame, (Rect{-7, 8.5, 640, 480}));
  EXPECT_TRUE(windows.window(101)->minimized);
  EXPECT_TRUE(windows.fullScreen(103));
  expect({{"/window/fullscreen", R"({"window_id":103})", ok}});
  EXPECT_FALSE(windows.fullScreen(103));
}

TEST_F(AppWindowTest, RefusesWhatIsNoPlaceOrSize) {
  constexpr const char* badPlace = R"(400 {"message":"invalid window position"})";
  constexpr const char* badSize = R"(400 {"message":"window size must be positive and finite"})";
  constexpr const char* undecodable = R"(400 {"message":"invalid request"})";
  listAll();
  expect({
      {"/window/resize", R"({"window_id":101,"w":0,"h":5})", badSize},
      {"/window/resize", R"({"window_id":101,"w":5,"h":-1})", badSize},
      {"/window/resize", R"({"window_id":9,"w":5,"h":-1})", badSize},
      {"/window/move", R"({"window_id":101,"x":1e400,"y":0})", undecodable},
      {"/window/move", R"({"window_id":101,"x":NaN,"y":0})", undecodable},
      {"/window/move", R"({"window_id":101,"x":"1","y":0})", undecodable},
      {"/window/focus", R"({"window_id":1.5})", undecodable},
  });
  constexpr double infinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(control.move({101, infinity, 0}).error().message(),
            "window coordinates must be finite");
  EXPECT_EQ(control.resize({101, 1, infinity}).error().message(),
            "window size must be positive and finite");
  EXPECT_EQ(windows.operations(), 0);
  expect({
      {"/window/move", R"({"window_id":101,"x":1e300,"y":0})", badPlace},
      {"/window/resize", R"({"window_id":101,"w":5,"h":1e300})",
       R"(400 {"message":"invalid window size"})"},
  });
}

TEST_F(AppWindowTest, TellsWindowsThatAreGone) {
  windows.add({.number = 104, .pid = 13});
  listAll();
  windows.close(101);
  applications.replace(12);
  windows.close(104);
  windows.add({.number = 104, .pid = 12});  // the number came to another application
  applications.end(13);
  for (const char* id : {"101", "102", "103", "104", "-1", "4294967296", "9223372036854775807"}) {
    SCOPED_TRACE(id);
    EXPECT_EQ(ask("/window/minimize", R"({"window_id":)" + std::string(id) + "}"), noWindow);
  }
  EXPECT_EQ(windows.operations(), 0);
}

TEST_F(AppWindowTest, NamesTheOperationThatFailed) {
  listAll();
  windows.failWith(AXError::failure);
  expect({
      {"/window/focus", R"({"window_id":101})",
       R"(400 {"message":"focus window failed with AX error -25200"})"},
      {"/window/move", R"({"window_id":101,"x":1,"y":1})",
       R"(400 {"message":"move window failed with AX error -25200"})"},
      {"/window/resize", R"({"window_id":101,"w":1,"h":1})",
       R"(400 {"message":"resize window failed with AX error -25200"})"},
      {"/window/minimize", R"({"window_id":101})",
       R"(400 {"message":"minimize window failed with AX error -25200"})"},
      {"/window/fullscreen", R"({"window_id":101})",
       R"(400 {"message":"toggle window fullscreen failed with AX error -25200"})"},
  });
  for (const AXError gone : {AXError::invalidElement, AXError::cannotComplete}) {
    windows.failWith(gone);
    expect({{"/window/focus", R"({"window_id":101})", noWindow}});
  }
}

}  // namespace
}  // namespace vesko
