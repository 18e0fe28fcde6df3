// The same form in each toolkit: what accessibility tells of it is compared with what the program
// itself says, and what is done to it with what the program reports.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include "accessible_app.h"
#include "base/text.h"
#include "platform/linux/atspi_accessibility.h"
#include "platform/linux/x11_window_system.h"

namespace vesko::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

struct Toolkit {
  const char* name;
  const char* program;
  std::vector<std::string> arguments;
  // What it cannot tell or do.
  bool namesComboBoxes = true;
  bool choosesClosed = true;
  bool togglesCheckBoxes = true;
  bool movesItself = true;
  bool grabsFocus = true;
  bool hasPopovers = true;
};

const std::string& roleOf(const Met& met) {
  return met.state.role;
}

/// Toolkits may leave out borders and what of a control is empty.
bool agree(const Rect& told, const Rect& own) {
  const auto inside = [](double at, double length, double outerAt, double outerLength) {
    return at >= outerAt && at + length <= outerAt + outerLength && at - outerAt < 20 && length > 5;
  };
  return inside(told.x, told.w, own.x, own.w) && inside(told.y, told.h, own.y, own.h);
}

class ToolkitTest : public ::testing::TestWithParam<Toolkit> {
 protected:
  void look() {
    // On a busy machine the first drawing keeps an application from answering for seconds.
    ASSERT_TRUE(eventually([this] {
      session_ = accessibility_.begin(Clock::now() + 60s);
      const auto root = session_->application(app_.pid());
      if (!root) return false;
      elements_ = walk(*session_, *root);
      return !session_->incomplete();
    }));
  }
  const Met& met(std::string_view role, std::string_view title) {
    const Met* found = find(elements_, role, title);
    EXPECT_TRUE(found) << role << " " << title;
    static const Met nothing;
    return found ? *found : nothing;
  }
  /// In a toolkit that has no say in it, the window manager's tool does it.
  void moveTo(std::string_view command) {
    if (command.empty()) return;
    if (GetParam().movesItself) return app_.send(command);
    std::vector<std::string> move{"xdotool", "search",     "--onlyvisible",
                                  "--name",  "Accessible", "windowmove"};
    for (const auto word : splitDroppingEmpty(command.substr(5), ' ')) move.emplace_back(word);
    outputOf(std::move(move));
  }
  /// The element of that title, once it has a frame on the screen that stays.
  Met whenShown(std::string_view title) {
    Met shown;
    EXPECT_TRUE(eventually([&] {
      look();
      const auto found = std::ranges::find_if(elements_, [&](const Met& met) {
        return met.state.title == title && met.state.frame && met.state.frame->w > 0;
      });
      if (found == elements_.end()) return false;
      const bool stays = shown.state.frame == found->state.frame;
      shown = *found;
      return stays;
    })) << title;
    return shown;
  }
  static void click(const Met& met) {
    const Rect frame = met.state.frame.value_or(Rect{});
    outputOf({"xdotool", "mousemove", std::to_string(int(frame.x + frame.w / 2)),
              std::to_string(int(frame.y + frame.h / 2)), "click", "1"});
  }
  bool reports(std::string_view line) { return app_.program().waitForLine(line); }

  AccessibleApp app_{GetParam().program, GetParam().arguments};
  X11Sessions windows_;
  AtspiAccessibility accessibility_{windows_};
  std::unique_ptr<AccessibilitySession> session_;
  std::vector<Met> elements_;
};

TEST_P(ToolkitTest, TellsWhatTheControlsAre) {
  look();
  struct Expected {
    const char* role;
    const char* title;
    std::optional<std::string> subrole;
    std::optional<std::string> value;
    bool enabled;
  };
  const Expected expected[] = {
      {"AXStaticText", "A Label", {}, "A Label", true},
      {"AXButton", "Save As…", {}, {}, true},
      {"AXButton", "Disabled", {}, {}, false},
      {"AXCheckBox", "Check", {}, "0", true},
      {"AXTextField", "The Entry", {}, "first 世界 👋", true},
      {"AXTextField", "The Secret", "AXSecureTextField", "••••••", true},
      {"AXSlider", "The Scale", {}, "25", true},
      {"AXIncrementor", "The Spin", {}, "3", true},
      {"AXRadioButton", "One", "AXTabButton", "1", true},
      {"AXRadioButton", "Two", "AXTabButton", "0", true},
  };
  for (const Expected& wanted : expected) {
    SCOPED_TRACE(std::string(wanted.role) + " " + wanted.title);
    const AXElementState& state = met(wanted.role, wanted.title).state;
    EXPECT_EQ(state.subrole, wanted.subrole);
    EXPECT_EQ(state.value, wanted.value);
    EXPECT_EQ(state.enabled, wanted.enabled);
  }
  EXPECT_TRUE(std::ranges::any_of(elements_, [](const Met& met) {
    return met.state.title == "cell 3" && met.state.value == "cell 3";
  }));
  const auto combo = std::ranges::find(elements_, "AXPopUpButton", roleOf);
  ASSERT_NE(combo, elements_.end());
  EXPECT_EQ(combo->state.value, "Green");
  if (GetParam().namesComboBoxes) EXPECT_EQ(combo->state.title, "The Combo");
  EXPECT_EQ(elements_.front().state.role, "AXApplication");
  EXPECT_EQ(elements_[1].state.role, "AXWindow");
  // Whoever reads the title bar sees the same.
  EXPECT_EQ(elements_[1].state.title,
            trim(outputOf({"xdotool", "getactivewindow", "getwindowname"})));
}

TEST_P(ToolkitTest, TellsWhereTheControlsAre) {
  for (const char* place : {"", "move 20 40", "move 333 111"}) {
    SCOPED_TRACE(place);
    moveTo(place);
    std::string differing;
    // The window manager moves it when it likes.
    EXPECT_TRUE(eventually(
        [&] {
          const auto own = app_.ownFrames();
          look();
          for (const char* title :
               {"Save As…", "Disabled", "Check", "The Entry", "The Scale", "Scroll 1"}) {
            differing = title;
            const auto found = std::ranges::find_if(
                elements_, [&](const Met& met) { return met.state.title == title; });
            if (found == elements_.end() || !found->state.frame ||
                !agree(*found->state.frame, own.at(title)))
              return false;
          }
          return true;
        },
        5s))
        << differing;
    EXPECT_TRUE(eventually([&] {
      look();
      const auto listed = X11WindowSystem(windows_).windows(app_.pid());
      return listed && !listed->empty() && elements_[1].state.frame == listed->front().frame;
    }));
  }
  // What does not show: pages and menus that are closed, and what is scrolled away.
  for (const Met& met : elements_) {
    for (const char* title : {"On Page Two", "Collapsed", "Scroll 5", "Open Item", "In Popover"}) {
      if (met.state.title != title || !met.state.frame) continue;
      EXPECT_LE(met.state.frame->x + met.state.frame->w, 0) << title;
    }
    // Whoever leaves out what is out of sight must not lose what shows inside it.
    if (!met.state.frame || met.state.frame->x + met.state.frame->w > 0) continue;
    for (const Met& inside : elements_) {
      if (std::ranges::find(met.state.children, inside.element) == met.state.children.end())
        continue;
      EXPECT_FALSE(inside.state.frame && inside.state.frame->x + inside.state.frame->w > 0)
          << met.state.role << " hides " << inside.state.role << " "
          << inside.state.title.value_or("");
    }
  }
}

TEST_P(ToolkitTest, Acts) {
  look();
  AccessibilitySession& session = *session_;
  EXPECT_EQ(session.perform(met("AXButton", "Save As…").element, AXAction::press),
            AXError::success);
  EXPECT_TRUE(reports("clicked Save As…"));
  EXPECT_NE(session.perform(met("AXButton", "Disabled").element, AXAction::press),
            AXError::success);
  EXPECT_EQ(session.perform(met("AXStaticText", "A Label").element, AXAction::increment),
            AXError::actionUnsupported);
  const AXElement entry = met("AXTextField", "The Entry").element;
  EXPECT_EQ(session.setValue(entry, "日本語 🎉"), AXError::success);
  EXPECT_TRUE(reports("entry 日本語 🎉"));
  const AXElement check = met("AXCheckBox", "Check").element;
  if (GetParam().togglesCheckBoxes) {
    EXPECT_EQ(session.setValue(check, "1"), AXError::success);
    EXPECT_TRUE(reports("check 1"));
  } else {
    EXPECT_EQ(session.setValue(check, "1"), AXError::actionUnsupported);
  }
  EXPECT_EQ(session.setValue(check, "yes"), AXError::illegalArgument);
  const AXElement scale = met("AXSlider", "The Scale").element;
  EXPECT_EQ(session.setValue(scale, "70"), AXError::success);
  EXPECT_TRUE(reports("scale 70"));
  EXPECT_EQ(session.perform(scale, AXAction::increment), AXError::success);
  EXPECT_EQ(session.setValue(scale, "nan"), AXError::illegalArgument);
  EXPECT_EQ(session.setValue(scale, "101"), AXError::illegalArgument);
  const AXElement combo = std::ranges::find(elements_, "AXPopUpButton", roleOf)->element;
  if (GetParam().choosesClosed) {
    EXPECT_EQ(session.setValue(combo, "Blue"), AXError::success);
    EXPECT_TRUE(reports("combo 2"));
    EXPECT_EQ(session.setValue(combo, "Purple"), AXError::illegalArgument);
  } else {
    EXPECT_EQ(session.setValue(combo, "Blue"), AXError::attributeUnsupported);
  }
  EXPECT_EQ(session.setFocused(entry),
            GetParam().grabsFocus ? AXError::success : AXError::attributeUnsupported);
  if (GetParam().grabsFocus) {
    EXPECT_TRUE(eventually([&] {
      return session.read(std::span(&entry, 1), axAttributes::focused, 0)[0].focused == true;
    }));
  }
  EXPECT_EQ(session.setValue(met("AXStaticText", "A Label").element, "x"),
            AXError::attributeUnsupported);
}

TEST_P(ToolkitTest, TellsWhatAMenuShowsThatIsOpen) {
  const auto open = [&](const char* item) {
    look();
    const auto menu = std::ranges::find_if(
        elements_, [](const Met& met) { return met.state.title == "File Menu"; });
    if (menu == elements_.end()) return Met{};
    EXPECT_EQ(session_->perform(menu->element, AXAction::press), AXError::success);
    return whenShown(item);
  };
  // The pointer finds it where it is said to be.
  click(open("Open Item"));
  EXPECT_TRUE(reports("clicked Open Item"));
  const Met item = open("Save Item");
  EXPECT_EQ(item.state.role, "AXMenuItem");
  EXPECT_EQ(item.state.enabled, true);
  EXPECT_EQ(session_->perform(item.element, AXAction::press), AXError::success);
  EXPECT_TRUE(reports("clicked Save Item"));
}

TEST_P(ToolkitTest, TellsWhatAPopoverShowsThatIsOpen) {
  if (!GetParam().hasPopovers) GTEST_SKIP();
  app_.send("popover");
  ASSERT_TRUE(reports("popped"));
  // It grows to its place.
  EXPECT_TRUE(eventually([&] {
    return agree(whenShown("In Popover").state.frame.value_or(Rect{}),
                 app_.ownFrames()["In Popover"]);
  }));
  const Met button = whenShown("In Popover");
  EXPECT_EQ(button.state.role, "AXButton");
  EXPECT_EQ(session_->perform(button.element, AXAction::press), AXError::success);
  EXPECT_TRUE(reports("clicked In Popover"));
  click(button);
  EXPECT_TRUE(reports("clicked In Popover"));
}

TEST_P(ToolkitTest, TellsWindowsOfOneApplicationApart) {
  look();
  const std::string first = elements_[1].state.title.value_or("");
  // Also where nothing but its content tells the second one from the first.
  for (const std::string& title : {std::string("Second Window"), first}) {
    SCOPED_TRACE(title);
    app_.send("second " + title);
    ASSERT_TRUE(reports("second"));
    const Met inSecond = whenShown("In Second");
    const auto own = app_.ownFrames();
    look();
    for (const char* button : {"In Second", "Save As…"}) {
      const Rect told = met("AXButton", button).state.frame.value_or(Rect{});
      EXPECT_TRUE(agree(told, own.at(button))) << button << " " << told.x << " " << told.y;
    }
    if (title == first) break;
    const AXElement root = elements_.front().element;
    const auto isFocused = [&](AXElement window) {
      return eventually([&] {
        return session_->focusedWindow(root) == window &&
               trim(outputOf({"xdotool", "getactivewindow", "getwindowname"})) ==
                   session_->read(std::span(&window, 1), axAttributes::title, 0)[0].title;
      });
    };
    const AXElement firstWindow = met("AXWindow", first).element;
    const AXElement secondWindow = met("AXWindow", title).element;
    EXPECT_TRUE(isFocused(secondWindow));
    EXPECT_EQ(session_->perform(firstWindow, AXAction::raise), AXError::success);
    EXPECT_TRUE(isFocused(firstWindow));
    EXPECT_EQ(session_->setFocused(secondWindow), AXError::success);
    EXPECT_TRUE(isFocused(secondWindow));
    EXPECT_EQ(session_->perform(met("AXButton", "Save As…").element, AXAction::raise),
              AXError::success);
    EXPECT_TRUE(isFocused(firstWindow));
    outputOf({"wmctrl", "-c", title});
    EXPECT_TRUE(eventually([&] {
      look();
      return !find(elements_, "AXButton", "In Second");
    }));
  }
}

TEST_P(ToolkitTest, TellsOfElementsThatAreGone) {
  look();
  const AXElement button = met("AXButton", "Save As…").element;
  app_.send("remove");
  EXPECT_TRUE(reports("removed"));
  EXPECT_EQ(session_->perform(button, AXAction::press), AXError::invalidElement);
  auto later = accessibility_.begin(Clock::now() + 5s);
  EXPECT_FALSE(find(walk(*later, *later->application(app_.pid())), "AXButton", "Save As…"));
  const AXElement entry = met("AXTextField", "The Entry").element;
  app_.program().signal(SIGSTOP);
  EXPECT_EQ(session_->perform(entry, AXAction::press), AXError::cannotComplete);
  app_.program().signal(SIGKILL);
  app_.program().wait();
  EXPECT_EQ(accessibility_.begin(Clock::now() + 5s)->application(app_.pid()).error(),
            AXError::apiDisabled);
}

INSTANTIATE_TEST_SUITE_P(, ToolkitTest,
                         ::testing::Values(Toolkit{"gtk3", "accessible_gtk3", {"form"}},
                                           Toolkit{"gtk3csd", "accessible_gtk3", {"form", "csd"}},
                                           Toolkit{.name = "gtk4",
                                                   .program = "accessible_gtk4",
                                                   .arguments = {"form"},
                                                   .choosesClosed = false,
                                                   .togglesCheckBoxes = false,
                                                   .movesItself = false,
                                                   .grabsFocus = false},
                                           Toolkit{.name = "gtk4csd",
                                                   .program = "accessible_gtk4",
                                                   .arguments = {"form", "csd"},
                                                   .choosesClosed = false,
                                                   .togglesCheckBoxes = false,
                                                   .movesItself = false,
                                                   .grabsFocus = false},
                                           Toolkit{.name = "qt5",
                                                   .program = "accessible_qt5",
                                                   .arguments = {"form"},
                                                   .namesComboBoxes = false,
                                                   .choosesClosed = false,
                                                   .hasPopovers = false}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace vesko::test
