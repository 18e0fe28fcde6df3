// Clicks, drags and scrolling that reach a real GTK window.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "desktop.h"
#include "platform/linux/x11_pasteboard.h"
#include "platform/linux/xtest_input.h"
#include "tools/input_control.h"

namespace vesko {
namespace {

using test::Program;

class PointerTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(program.waitReady()); }

  void expectLines(std::initializer_list<const char*> lines) {
    for (const char* line : lines)
      EXPECT_TRUE(program.waitForLine(line)) << line << " but got " << program.lastLine();
  }

  XTestInput events;
  X11Pasteboard pasteboard;
  InputControl input{events, pasteboard};
  Program program{{std::string(VESKO_APPS) + "/input_app_gtk3", "pointer"}};
};

TEST_F(PointerTest, MovesAndClicks) {
  ASSERT_TRUE(input.move({200, 150.9}).has_value());
  EXPECT_EQ(events.pointerLocation(), (Point{200, 150}));
  expectLines({"move 200 150"});
  ASSERT_TRUE(input.click({}).has_value());
  expectLines({"press 1 200 150", "release 1 200 150"});
  ASSERT_TRUE(input.click({300.0, 100.0, "right", {}}).has_value());
  expectLines({"press 3 300 100", "release 3 300 100"});
  ASSERT_TRUE(input.click({100.0, 250.0, {}, 2}).has_value());
  expectLines({"press 1 100 250", "release 1 100 250", "double 1 100 250", "release 1 100 250"});
}

TEST_F(PointerTest, DragsWithTheButtonHeld) {
  ASSERT_TRUE(input.drag({100, 100, 220, 160, {}}).has_value());
  expectLines({"press 1 100 100", "drag 220 160", "release 1 220 160"});
}

TEST_F(PointerTest, ScrollsInAllDirections) {
  ASSERT_TRUE(input.move({200, 150}).has_value());
  expectLines({"move 200 150"});
  const std::pair<ScrollRequest, const char*> cases[] = {{{0, 120}, "scroll up"},
                                                         {{0, -120}, "scroll down"},
                                                         {{120, 0}, "scroll left"},
                                                         {{-120, 0}, "scroll right"},
                                                         {{0, 1}, "scroll up"}};
  for (const auto& [request, line] : cases) {
    ASSERT_TRUE(input.scroll(request).has_value());
    expectLines({line});
  }
}

TEST_F(PointerTest, PointsOffTheScreenEndAtItsEdge) {
  ASSERT_TRUE(input.move({1e12, -1e12}).has_value());
  const auto at = events.pointerLocation();
  ASSERT_TRUE(at.has_value());
  EXPECT_GT(at->x, 600);
  EXPECT_EQ(at->y, 0);
}

TEST_F(PointerTest, KeysArriveWithTheirModifiers) {
  struct Case {
    KeyRequest request;
    const char* line;
  };
  // Shift is 1, Control 4 and Alt 8 in the state of an event.
  const Case cases[] = {
      {{"f5", {}}, "key F5 0"},
      {{"escape", {{"command"}}}, "key Escape 4"},
      {{"home", {{"shift", "control"}}}, "key Home 5"},
      {{"page_down", {{"option"}}}, "key Page_Down 8"},
      {{"+", {}}, "key plus 1"},
      {{"a", {{"shift"}}}, "key A 1"},
      {{"forward_delete", {}}, "key Delete 0"},
      {{"tab", {{"command"}}}, "key Tab 4"},
      {{"space", {}}, "key space 0"},
      {{"arrow_left", {{"command", "option", "shift", "control"}}}, "key Left 13"},
  };
  for (const Case& c : cases) {
    ASSERT_TRUE(input.key(c.request).has_value());
    expectLines({c.line});
  }
}

TEST(NoDisplayTest, EverythingSaysSo) {
  const std::string display = getenv("DISPLAY");
  setenv("DISPLAY", ":65000", 1);
  XTestInput events;
  X11Pasteboard pasteboard;
  InputControl input(events, pasteboard);
  const std::string refusal = "could not create input event";
  EXPECT_EQ(input.move({1, 1}).error().message(), refusal);
  EXPECT_EQ(input.click({}).error().message(), refusal);
  EXPECT_EQ(input.type({"x", {}}).error().message(), refusal);
  EXPECT_EQ(input.clipboardGet().error().message(), "clipboard text is unavailable");
  EXPECT_EQ(input.clipboardSet({"x"}).error().message(), "could not write the clipboard");
  // The same services work once the display is there.
  setenv("DISPLAY", display.c_str(), 1);
  EXPECT_TRUE(input.move({1, 1}).has_value());
  EXPECT_TRUE(input.clipboardSet({"x"}).has_value());
  EXPECT_EQ(pasteboard.text(), "x");
}

}  // namespace
}  // namespace vesko
