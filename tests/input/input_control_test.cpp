// The portable half of the input tools on a desktop in memory.
#include "tools/input_control.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "fakes/fake_input_events.h"
#include "fakes/fake_pasteboard.h"
#include "tools/key_table.h"

namespace vesko {
namespace {

using Kind = MouseEvent::Kind;

class InputControlTest : public testing::Test {
 protected:
  static std::string outcome(const InputControl::Done& done) {
    return done ? "ok" : done.error().message();
  }
  // As a request comes off the wire.
  template <class Request>
  static Request decoded(std::string_view body) {
    auto request = json::decode<Request>(body);
    EXPECT_TRUE(request.has_value()) << body;
    return request.value_or(Request{});
  }

  fakes::FakeInputEvents events;
  fakes::FakePasteboard pasteboard;
  InputControl input{events, pasteboard};
};

TEST_F(InputControlTest, RefusesWhatIsNoClick) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"x":1,"y":2,"button":"middle"})", "button must be left or right"},
      {R"({"x":1,"y":2,"count":3})", "count must be 1 or 2"},
      {R"({"x":1,"y":2,"count":0})", "count must be 1 or 2"},
      {R"({"x":1})", "x and y must be supplied together"},
      {R"({"y":1})", "x and y must be supplied together"},
      {R"({"x":1,"button":"up","count":9})", "button must be left or right"},
      {R"({"x":1,"count":9})", "count must be 1 or 2"},
  };
  for (const auto& [body, message] : cases) {
    SCOPED_TRACE(body);
    EXPECT_EQ(outcome(input.click(decoded<ClickRequest>(body))), message);
    EXPECT_TRUE(events.takeEvents().empty());
  }
  constexpr double infinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(outcome(input.click({1.0, infinity, {}, {}})), "coordinates must be finite");
  EXPECT_EQ(outcome(input.move({infinity, 0})), "coordinates must be finite");
}

TEST_F(InputControlTest, ClicksWhereAskedOrWhereThePointerIs) {
  EXPECT_EQ(outcome(input.click(decoded<ClickRequest>(R"({"x":5,"y":6,"count":2})"))), "ok");
  const Point at{5, 6};
  EXPECT_EQ(events.takeEvents(),
            (std::vector<InputEvent>{
                MouseEvent{Kind::leftDown, at, 1}, MouseEvent{Kind::leftUp, at, 1},
                MouseEvent{Kind::leftDown, at, 2}, MouseEvent{Kind::leftUp, at, 2}}));
  EXPECT_EQ(outcome(input.move(decoded<MoveRequest>(R"({"x":-7.5,"y":8})"))), "ok");
  events.takeEvents();
  EXPECT_EQ(outcome(input.click(decoded<ClickRequest>(R"({"button":"right","x":null})"))), "ok");
  const Point there{-7.5, 8};
  EXPECT_EQ(events.takeEvents(), (std::vector<InputEvent>{MouseEvent{Kind::rightDown, there, 1},
                                                          MouseEvent{Kind::rightUp, there, 1}}));
}

TEST_F(InputControlTest, DragsInStepsOfAboutTwelvePoints) {
  struct Case {
    double toX;
    double toY;
    std::size_t steps;
  };
  const Case cases[] = {{0, 0, 2},    {35, 0, 2},     {36, 0, 3},     {30, 40, 4},
                        {720, 0, 60}, {0, -6000, 60}, {1e300, 0, 60}, {0, 719.9, 59}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.toX << " " << c.toY);
    ASSERT_EQ(outcome(input.drag({0, 0, c.toX, c.toY, {}})), "ok");
    const auto posted = events.takeEvents();
    ASSERT_EQ(posted.size(), c.steps + 3);
    EXPECT_EQ(posted[0], InputEvent(MouseEvent{Kind::moved, {0, 0}, 0}));
    EXPECT_EQ(posted[1], InputEvent(MouseEvent{Kind::leftDown, {0, 0}, 0}));
    const auto& first = std::get<MouseEvent>(posted[2]);
    EXPECT_EQ(first.kind, Kind::leftDragged);
    EXPECT_DOUBLE_EQ(first.at.x, c.toX / static_cast<double>(c.steps));
    EXPECT_EQ(posted[c.steps + 1], InputEvent(MouseEvent{Kind::leftDragged, {c.toX, c.toY}, 0}));
    EXPECT_EQ(posted.back(), InputEvent(MouseEvent{Kind::leftUp, {c.toX, c.toY}, 0}));
    EXPECT_FALSE(events.anythingPressed());
  }
  EXPECT_EQ(outcome(input.drag({-1e308, 0, 1e308, 0, {}})), "drag distance is out of range");
  EXPECT_EQ(outcome(input.drag({0, 0, 1, 1, "right"})), "drag button must be left");
  EXPECT_TRUE(events.takeEvents().empty());
}

TEST_F(InputControlTest, ScrollsWithinThirtyTwoBits) {
  ASSERT_EQ(outcome(input.scroll(decoded<ScrollRequest>(R"({"dx":2147483647,"dy":-2147483648})"))),
            "ok");
  EXPECT_EQ(events.takeEvents(),
            (std::vector<InputEvent>{ScrollEvent{std::numeric_limits<std::int32_t>::min(),
                                                 std::numeric_limits<std::int32_t>::max()}}));
  for (const double delta :
       {2147483648.0, -2147483649.0, 1e300, std::numeric_limits<double>::quiet_NaN()}) {
    EXPECT_EQ(outcome(input.scroll({delta, 0})), "scroll delta is out of range");
    EXPECT_EQ(outcome(input.scroll({0, delta})), "scroll delta is out of range");
  }
}

TEST_F(InputControlTest, TypesTextInPieces) {
  const std::string text = "Grüße, 日本語 😀\n and more than one piece of it";
  ASSERT_EQ(outcome(input.type({text, {}})), "ok");
  EXPECT_EQ(events.typed(), u"Grüße, 日本語 😀\n and more than one piece of it");
  EXPECT_FALSE(events.anythingPressed());
  const auto posted = events.takeEvents();
  ASSERT_EQ(posted.size(), 6U);
  EXPECT_EQ(std::get<KeyEvent>(posted[1]).text, std::get<KeyEvent>(posted[0]).text);
  EXPECT_EQ(outcome(input.type({"", "keystroke"})), "ok");
  EXPECT_EQ(outcome(input.type({"x", "speech"})), "method must be keystroke or paste");
  EXPECT_TRUE(events.takeEvents().empty());
}

TEST_F(InputControlTest, StopsWithinALongTextAndPostsNothingUnasked) {
  int allowed = 2;
  InputControl asking(events, pasteboard, [&]() -> std::expected<void, std::string> {
    if (--allowed >= 0) return {};
    return std::unexpected("not now");
  });
  EXPECT_EQ(outcome(asking.type({std::string(100000, 'x'), {}})), "not now");
  EXPECT_FALSE(events.typed().empty());
  EXPECT_LT(events.typed().size(), 1000U);
  EXPECT_FALSE(events.anythingPressed());
  events.takeEvents();
  const InputControl::Done refused[] = {
      asking.move({1, 1}),           asking.click({}),
      asking.drag({0, 0, 9, 9, {}}), asking.scroll({1, 1}),
      asking.type({"x", {}}),        asking.type({"x", "paste"}),
      asking.key({"x", {}}),         asking.hotkey({{"command", "x"}})};
  for (const auto& done : refused) EXPECT_EQ(outcome(done), "not now");
  EXPECT_TRUE(events.takeEvents().empty());
  // All of a text arrives that is not stopped.
  const auto before = events.typed().size();
  EXPECT_EQ(outcome(input.type({std::string(100000, 'y'), {}})), "ok");
  EXPECT_EQ(events.typed().size(), before + 100000);
}

TEST_F(InputControlTest, PastesThroughTheClipboardAndLeavesItThere) {
  ASSERT_EQ(outcome(input.clipboardSet({"old"})), "ok");
  ASSERT_EQ(outcome(input.type({"new", "paste"})), "ok");
  EXPECT_EQ(events.takeEvents(),
            (std::vector<InputEvent>{KeyEvent{9, true, key_flags::command, {}},
                                     KeyEvent{9, false, key_flags::command, {}}}));
  EXPECT_EQ(input.clipboardGet()->text, "new");
  EXPECT_EQ(pasteboard.reads(), 1U) << "did not wait for the program";
  pasteboard.setWritable(false);
  EXPECT_EQ(outcome(input.type({"lost", "paste"})), "could not write the clipboard");
  EXPECT_EQ(outcome(input.clipboardSet({"lost"})), "could not write the clipboard");
  EXPECT_TRUE(events.takeEvents().empty());
}

TEST_F(InputControlTest, EmptyClipboardIsAnError) {
  const auto answer = input.clipboardGet();
  ASSERT_FALSE(answer.has_value());
  EXPECT_EQ(answer.error().message(), "clipboard text is unavailable");
}

TEST_F(InputControlTest, NamesOfKeys) {
  struct Case {
    const char* name;
    std::optional<KeyStroke> stroke;
  };
  const Case cases[] = {
      {"a", KeyStroke{0, 0}},
      {"A", KeyStroke{0, 0}},
      {"f5", KeyStroke{96, 0}},
      {"F5", KeyStroke{96, 0}},
      {" f5\t", KeyStroke{96, 0}},
      {"return", KeyStroke{36, 0}},
      {"Page_Down", KeyStroke{121, 0}},
      {"arrow_up", KeyStroke{126, 0}},
      {"delete", KeyStroke{51, 0}},
      {"forward_delete", KeyStroke{117, 0}},
      {"`", KeyStroke{50, 0}},
      {"\\", KeyStroke{42, 0}},
      {"+", KeyStroke{24, 0x20000}},
      {"!", KeyStroke{18, 0x20000}},
      {"\"", KeyStroke{39, 0x20000}},
      {"~", KeyStroke{50, 0x20000}},
      {"?", KeyStroke{44, 0x20000}},
      {"", std::nullopt},
      {" ", std::nullopt},
      {"ä", std::nullopt},
      {"enter", std::nullopt},
      {"f13", std::nullopt},
      {"ab", std::nullopt},
      {"++", std::nullopt},
  };
  for (const Case& c : cases) EXPECT_EQ(keyNamed(c.name), c.stroke) << c.name;
}

TEST_F(InputControlTest, KeysAndHotkeysCombineTheirFlags) {
  ASSERT_EQ(outcome(input.key(
                decoded<KeyRequest>(R"({"key":"+","modifiers":["command","option","command"]})"))),
            "ok");
  const std::uint32_t flags = 0x100000 | 0x80000 | 0x20000;
  EXPECT_EQ(events.takeEvents(), (std::vector<InputEvent>{KeyEvent{24, true, flags, {}},
                                                          KeyEvent{24, false, flags, {}}}));
  ASSERT_EQ(outcome(input.hotkey(decoded<HotkeyRequest>(R"({"combo":["control","F5"]})"))), "ok");
  EXPECT_EQ(events.takeEvents(), (std::vector<InputEvent>{KeyEvent{96, true, 0x40000, {}},
                                                          KeyEvent{96, false, 0x40000, {}}}));

  EXPECT_EQ(outcome(input.key({"hyper", {{"super"}}})), "unsupported modifier: super");
  EXPECT_EQ(outcome(input.key({" Nope ", {}})), "unsupported key:  Nope ");
  const std::pair<std::vector<std::string>, const char*> refused[] = {
      {{}, "hotkey must contain modifiers and a key"},
      {{"c"}, "hotkey must contain modifiers and a key"},
      {{"command"}, "hotkey must contain modifiers and a key"},
      {{"c", "command"}, "unsupported modifier: c"},
      {{"command", "shift"}, "unsupported key: shift"},
  };
  for (const auto& [combo, message] : refused) EXPECT_EQ(outcome(input.hotkey({combo})), message);
  EXPECT_TRUE(events.takeEvents().empty());
}

TEST_F(InputControlTest, DesktopThatRefusesKeepsWhatItTook) {
  const std::string refusal = "could not create input event";
  events.acceptAtMost(3);
  EXPECT_EQ(outcome(input.drag({0, 0, 100, 0, {}})), refusal);
  EXPECT_EQ(events.takeEvents().size(), 3U);
  EXPECT_TRUE(events.anythingPressed());
  EXPECT_EQ(outcome(input.move({1, 1})), refusal);
  EXPECT_EQ(outcome(input.click({})), refusal);
  EXPECT_EQ(outcome(input.scroll({1, 1})), refusal);
  EXPECT_EQ(outcome(input.type({"x", {}})), refusal);
  EXPECT_EQ(outcome(input.key({"a", {}})), refusal);
}

TEST_F(InputControlTest, RequestsFromSeveralThreadsDoNotInterleave) {
  constexpr int rounds = 200;
  const auto run = [&](const std::string& text) {
    for (int i = 0; i < rounds; ++i) EXPECT_EQ(outcome(input.type({text, {}})), "ok");
  };
  const std::string a(50, 'a');
  const std::string b(50, 'b');
  std::thread first(run, a);
  std::thread second(run, b);
  first.join();
  second.join();
  const std::u16string typed = events.typed();
  ASSERT_EQ(typed.size(), 2U * 50 * rounds);
  for (std::size_t i = 0; i < typed.size(); i += 50)
    ASSERT_EQ(typed.substr(i, 50), std::u16string(50, typed[i]));
}

}  // namespace
}  // namespace vesko
