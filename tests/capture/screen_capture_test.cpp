// The capture service on a desktop in memory: checks and their order, sizes, scale, the gate.
#include "tools/screen_capture.h"

#include <gtest/gtest.h>

#include <thread>

#include "base/base64.h"
#include "fakes/fake_screen_source.h"
#include "png_decoder.h"

namespace vesko {
namespace {

using fakes::FakeScreenSource;
using fakes::placeColor;
using Target = CaptureRequest::Target;

class Probes : public PermissionProbes {
 public:
  std::atomic<bool> allowed = true;
  bool accessibilityTrusted() override { return true; }
  bool screenCaptureAllowed() override { return allowed; }
  PhotosPermission photos() override { return PhotosPermission::full; }
  AutomationStatus automation(AutomationTarget) override { return {}; }
};

class ScreenCaptureTest : public testing::Test {
 protected:
  ScreenCaptureTest() {
    source_.screenDisplays = {
        {.id = 7, .bounds = {0, 0, 64, 40}, .pixelsWide = 64, .pixelsHigh = 40},
        {.id = 9, .bounds = {64, 0, 50, 30}, .pixelsWide = 100, .pixelsHigh = 60, .primary = true}};
    source_.screens = {.all = {{{0, 0, 64, 40}, 1.0}, {{64, 0, 50, 30}, 2.0}}, .mainScale = 2.0};
    source_.windows[11] = {.frame = {60, 5, 20, 10}};
  }

  std::expected<CaptureResponse, CaptureError> capture(const CaptureRequest& request) {
    return service_.capture(request);
  }
  std::string errorOf(const CaptureRequest& request) {
    const auto result = capture(request);
    return result ? "no error" : result.error().message;
  }
  static test::DecodedPng decode(const CaptureResponse& response) {
    const auto file = decodeBase64(response.pngBase64);
    EXPECT_TRUE(file);
    auto decoded = test::decodePng(std::as_bytes(std::span(*file)));
    EXPECT_TRUE(decoded);
    return decoded ? *decoded : test::DecodedPng{};
  }

  FakeScreenSource source_;
  Probes probes_;
  ScreenRecordingProcessState state_{probes_};
  ScreenCaptureService service_{source_, state_};
};

TEST_F(ScreenCaptureTest, ListsDisplays) {
  struct Case {
    Rect bounds;
    int wide, high;
    std::int64_t width, height;
    double scale;
  };
  for (const Case& each :
       {Case{{-30, 40, 1280, 800}, 2560, 1600, 1280, 800, 2.0},
        Case{{0, 0, 0, 800}, 2560, 800, 1, 800, 1.0}, Case{{0, 0, 0, 0}, 640, 480, 1, 1, 480.0},
        Case{{0, 0, 99.5, 100.4}, 199, 200, 100, 100, 200 / 100.4}}) {
    SCOPED_TRACE(each.bounds.w);
    source_.screenDisplays = {{.id = 4'000'000'000U,
                               .bounds = each.bounds,
                               .pixelsWide = each.wide,
                               .pixelsHigh = each.high}};
    const auto list = service_.listDisplays();
    ASSERT_TRUE(list);
    ASSERT_EQ(list->displays.size(), 1U);
    EXPECT_EQ(list->displays[0].id, "4000000000");
    EXPECT_EQ(list->displays[0].width, each.width);
    EXPECT_EQ(list->displays[0].height, each.height);
    EXPECT_DOUBLE_EQ(list->displays[0].scale, each.scale);
    EXPECT_FALSE(list->displays[0].primary);
    EXPECT_EQ(list->displays[0].x.value_or(0), each.bounds.x);
    EXPECT_EQ(list->displays[0].y.value_or(0), each.bounds.y);
  }
  source_.screenDisplays.clear();
  EXPECT_EQ(json::encode(*service_.listDisplays()), R"({"displays":[]})");
  source_.listError = ScreenSourceError::declined;
  EXPECT_EQ(service_.listDisplays().error().message, "screen capture failed");
}

TEST_F(ScreenCaptureTest, ResolvesDisplayNumbers) {
  for (const char* id : {"7", "+7", "007"}) {
    SCOPED_TRACE(id);
    const auto response = capture({.displayID = id});
    ASSERT_TRUE(response);
    EXPECT_EQ(response->width, 64);
    EXPECT_EQ(decode(*response).argb(3, 5), placeColor(3, 5));
  }
  for (const char* id : {"", "+", "-7", "-0", "8", " 7", "7 ", "7.0", "0x7", "++7", "4294967303",
                         "18446744073709551623", "seven"}) {
    SCOPED_TRACE(id);
    EXPECT_EQ(errorOf({.displayID = id}), "display not found");
  }
  const auto main = capture({});
  ASSERT_TRUE(main);
  EXPECT_EQ(main->width, 100);
  EXPECT_EQ(main->scale, 2.0);
  source_.screenDisplays[1].primary = false;
  EXPECT_EQ(errorOf({}), "display not found");
}

TEST_F(ScreenCaptureTest, ChecksMaxDimensionBeforeItCaptures) {
  for (const std::int64_t wrong :
       {std::int64_t{0}, std::int64_t{-1}, std::int64_t{16385}, std::int64_t{1} << 40}) {
    SCOPED_TRACE(wrong);
    EXPECT_EQ(errorOf({.displayID = "none", .maxDimension = wrong}),
              "max_dim must be between 1 and 16384");
    EXPECT_EQ(capture({.maxDimension = wrong}).error().kind, CaptureError::Kind::invalidRequest);
  }
  EXPECT_EQ(source_.captures, 0);
}

TEST_F(ScreenCaptureTest, FitsTheLongestSide) {
  struct Case {
    int wide, high;
    std::optional<std::int64_t> maxDimension;
    int width, height;
  };
  for (const Case& each : {Case{3000, 2000, 1, 1, 1}, Case{3000, 2000, 16384, 3000, 2000},
                           Case{3000, 2000, {}, 1600, 1067}, Case{2000, 3000, 100, 67, 100},
                           Case{1600, 1600, {}, 1600, 1600}, Case{1601, 3, {}, 1600, 3},
                           Case{4000, 1, 10, 10, 1}, Case{1, 4000, 4, 1, 4}}) {
    SCOPED_TRACE(testing::Message() << each.wide << "x" << each.high);
    source_.screenDisplays = {{.id = 1,
                               .bounds = {0, 0, each.wide / 2.0, each.high / 2.0},
                               .pixelsWide = each.wide,
                               .pixelsHigh = each.high,
                               .primary = true}};
    const auto response = capture({.maxDimension = each.maxDimension});
    ASSERT_TRUE(response);
    EXPECT_EQ(std::pair(response->width, response->height), std::pair(each.width, each.height));
    EXPECT_EQ(decode(*response).size, (PixelSize{each.width, each.height}));
    EXPECT_DOUBLE_EQ(response->scale,
                     std::min(2.0 * each.width / each.wide, 2.0 * each.height / each.high));
  }
}

TEST_F(ScreenCaptureTest, AcceptsRegionsInsideTheDisplayOnly) {
  constexpr auto message = "region capture requires a positive rect inside the target display";
  EXPECT_EQ(errorOf({.target = Target::region}), message);
  for (const Rect& wrong :
       {Rect{0, 0, 0, 10}, Rect{0, 0, 10, 0}, Rect{0, 0, -5, 10}, Rect{-1, 0, 10, 10},
        Rect{0, -0.5, 10, 10}, Rect{0, 0, 65, 10}, Rect{0, 0, 10, 41}, Rect{60, 0, 4.5, 1}}) {
    SCOPED_TRACE(testing::Message()
                 << wrong.x << " " << wrong.y << " " << wrong.w << " " << wrong.h);
    EXPECT_EQ(errorOf({.target = Target::region, .displayID = "7", .rect = wrong}), message);
  }
  EXPECT_EQ(errorOf({.target = Target::region, .displayID = "8", .rect = Rect{0, 0, 0, 0}}),
            "display not found");
  EXPECT_EQ(source_.captures, 0);

  const auto edges =
      capture({.target = Target::region, .displayID = "7", .rect = Rect{0, 0, 64, 40}});
  ASSERT_TRUE(edges);
  const auto corner =
      capture({.target = Target::region, .displayID = "9", .rect = Rect{45, 25, 5, 5}});
  ASSERT_TRUE(corner);
  EXPECT_EQ(std::pair(corner->width, corner->height), std::pair(10, 10));
  EXPECT_EQ(corner->scale, 2.0);
  EXPECT_EQ(source_.lastArea(), (Rect{45, 25, 5, 5}));
  EXPECT_EQ(decode(*corner).argb(9, 9), placeColor(2 * (64 + 45) + 9, 2 * 25 + 9));
  // A fraction of a pixel is still one pixel.
  const auto sliver =
      capture({.target = Target::region, .displayID = "7", .rect = Rect{0.5, 0.5, 0.2, 3.5}});
  ASSERT_TRUE(sliver);
  EXPECT_EQ(std::pair(sliver->width, sliver->height), std::pair(1, 4));
}

TEST_F(ScreenCaptureTest, DisplayWithoutExtentHasScaleOne) {
  source_.screenDisplays = {{.id = 1, .pixelsWide = 64, .pixelsHigh = 64, .primary = true}};
  const auto response = capture({});
  ASSERT_TRUE(response);
  EXPECT_EQ(std::pair(response->width, response->height), std::pair(1, 1));
  EXPECT_EQ(response->scale, 1.0);
}

TEST_F(ScreenCaptureTest, FindsWindows) {
  for (const std::optional<std::int64_t> id :
       {std::optional<std::int64_t>(), std::optional<std::int64_t>(12),
        std::optional<std::int64_t>(-11),
        std::optional<std::int64_t>((std::int64_t{1} << 32) + 11)}) {
    SCOPED_TRACE(id.value_or(0));
    EXPECT_EQ(errorOf({.target = Target::window, .windowID = id}), "window not found");
  }
  const auto response = capture({.target = Target::window, .windowID = 11});
  ASSERT_TRUE(response);
  EXPECT_EQ(decode(*response).argb(6, 7), placeColor(6, 7));
}

TEST_F(ScreenCaptureTest, WindowTakesTheScaleOfTheScreenItCoversMost) {
  struct Case {
    std::string name;
    BackingScreens screens;
    Rect frame;
    double scale;
  };
  const BackingScreens two = source_.screens;
  for (const Case& each :
       {Case{"mostly second", two, {60, 5, 20, 10}, 2.0},
        Case{"mostly first", two, {50, 5, 20, 10}, 1.0}, Case{"tie", two, {54, 5, 20, 10}, 1.0},
        Case{"off all screens", two, {500, 500, 20, 10}, 1.0},
        Case{"one screen", {.all = {{{0, 0, 10, 10}, 3.0}}}, {90, 90, 20, 10}, 3.0},
        Case{"main only", {.mainScale = 1.5}, {0, 0, 20, 10}, 1.5},
        Case{"none", {}, {0, 0, 20, 10}, 1.0}}) {
    SCOPED_TRACE(each.name);
    source_.screens = each.screens;
    source_.windows[11] = {.frame = each.frame};
    const auto response = capture({.target = Target::window, .windowID = 11});
    ASSERT_TRUE(response);
    EXPECT_EQ(std::pair(response->width, response->height),
              std::pair(static_cast<int>(20 * each.scale), static_cast<int>(10 * each.scale)));
    EXPECT_EQ(response->scale, each.scale);
  }
}

TEST_F(ScreenCaptureTest, WindowResizedMeanwhileKeepsThePromisedSize) {
  source_.screens = {};
  source_.windows[11] = {.frame = {0, 0, 20, 10}, .delivers = PixelSize{40, 33}};
  const auto response = capture({.target = Target::window, .windowID = 11});
  ASSERT_TRUE(response);
  EXPECT_EQ(decode(*response).size, (PixelSize{20, 10}));
  EXPECT_EQ(response->scale, 1.0);
}

TEST_F(ScreenCaptureTest, MapsSourceErrors) {
  struct Case {
    ScreenSourceError error;
    bool allowedAfterwards;
    std::string message;
  };
  for (const Case& each :
       {Case{ScreenSourceError::failed, true, "screen capture failed"},
        Case{ScreenSourceError::windowGone, true, "window not found"},
        Case{ScreenSourceError::displayGone, true, "display not found"},
        Case{ScreenSourceError::declined, true, "screen recording permission is not active"},
        Case{ScreenSourceError::failed, false, "screen recording permission is not active"}}) {
    SCOPED_TRACE(each.message);
    probes_.allowed = true;
    source_.captureError = each.error;
    source_.whileCapturing = [&] { probes_.allowed = each.allowedAfterwards; };
    EXPECT_EQ(errorOf({}), each.message);
    EXPECT_EQ(state_.lostSinceLaunch(), !each.allowedAfterwards);
  }
}

TEST_F(ScreenCaptureTest, PermissionOnceLostNeverReturns) {
  EXPECT_TRUE(capture({}));
  probes_.allowed = false;
  // The gate comes before every other check.
  EXPECT_EQ(errorOf({.maxDimension = 0}), "screen recording permission is not active");
  probes_.allowed = true;
  EXPECT_EQ(errorOf({}), "screen recording permission is not active");
  EXPECT_TRUE(service_.listDisplays());

  probes_.allowed = false;
  ScreenRecordingProcessState late(probes_);
  probes_.allowed = true;
  ScreenCaptureService grantedAfterLaunch(source_, late);
  EXPECT_EQ(grantedAfterLaunch.capture({}).error().kind, CaptureError::Kind::permissionDenied);
  EXPECT_FALSE(late.launchedWithAccess());
}

TEST_F(ScreenCaptureTest, CapturesConcurrently) {
  std::atomic<int> right = 0;
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&, i] {
        for (int round = 0; round < 20; ++round) {
          const std::string id = i % 2 == 0 ? "7" : "9";
          const auto response = service_.capture({.displayID = id, .maxDimension = 30});
          if (response && response->width == 30) ++right;
        }
      });
    }
  }
  EXPECT_EQ(right, 80);
}

TEST(CaptureRequestTest, Decodes) {
  const auto request = json::decode<CaptureRequest>(
      R"({"target":"region","display_id":"3","rect":{"x":1,"y":2.5,"w":3,"h":4},"max_dim":9})");
  ASSERT_TRUE(request);
  EXPECT_EQ(request->target, Target::region);
  EXPECT_EQ(request->displayID, "3");
  EXPECT_EQ(request->rect, (Rect{1, 2.5, 3, 4}));
  EXPECT_EQ(request->maxDimension, 9);
  for (const char* wrong :
       {R"({})", R"({"target":"screen"})", R"({"target":"window","window_id":"5"})",
        R"({"target":"display","display_id":3})",
        R"({"target":"region","rect":{"x":1,"y":2,"w":3}})",
        R"({"target":"display","max_dim":1.5})"}) {
    SCOPED_TRACE(wrong);
    EXPECT_FALSE(json::decode<CaptureRequest>(wrong));
  }
}

TEST(ScreenRecordingRelaunchGuardTest, RelaunchesOnceForANewGrant) {
  struct Case {
    std::string name;
    bool launched, pending;
    std::vector<bool> readings;
    std::vector<bool> relaunches;
  };
  for (const Case& each :
       {Case{"granted from the start", true, false, {true, true}, {false, false}},
        Case{"granted later", false, false, {false, true, true}, {false, true, false}},
        Case{"granted twice", false, false, {true, false, true}, {true, false, false}},
        Case{"lost and granted again", true, false, {false, true}, {false, true}},
        Case{"just relaunched for it", false, true, {false, true, true}, {false, false, false}},
        Case{"relaunched, then lost and granted",
             false,
             true,
             {true, false, true},
             {false, false, true}},
        Case{"relaunched with access", true, true, {true, false, true}, {false, false, true}}}) {
    SCOPED_TRACE(each.name);
    ScreenRecordingRelaunchGuard guard(each.launched, each.pending);
    std::vector<bool> relaunches;
    for (const bool granted : each.readings) relaunches.push_back(guard.update(granted));
    EXPECT_EQ(relaunches, each.relaunches);
  }
}

}  // namespace
}  // namespace vesko
