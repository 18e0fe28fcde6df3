// A web page in a GTK 4 application: its elements, where they are, and acting on them.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include "accessible_app.h"
#include "platform/linux/atspi_accessibility.h"

namespace vesko::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

TEST(WebPage, IsReadAndOperated) {
  // Where the sandbox of the engine cannot be set up, as in a container; the page is the test's
  // own.
  ::setenv("WEBKIT_DISABLE_SANDBOX_THIS_IS_DANGEROUS", "1", 1);
  // Its processes end a little after the window's, and would still write there.
  ::setenv("MESA_SHADER_CACHE_DISABLE", "true", 1);
  AccessibleApp app("accessible_web", {});
  X11Sessions windows;
  AtspiAccessibility accessibility(windows);
  std::unique_ptr<AccessibilitySession> session;
  std::vector<Met> elements;
  // The engine tells of a page only once it was asked, and builds its tree then.
  ASSERT_TRUE(eventually([&] {
    session = accessibility.begin(Clock::now() + 60s);
    const auto root = session->application(app.pid());
    if (!root) return false;
    elements = walk(*session, *root);
    return find(elements, "AXCheckBox", "Check") != nullptr;
  }));
  const auto state = [&](std::string_view role, std::string_view title) {
    const Met* met = find(elements, role, title);
    EXPECT_TRUE(met) << role << " " << title;
    return met ? met->state : AXElementState{};
  };
  EXPECT_EQ(state("AXWebArea", "The Page").role, "AXWebArea");
  EXPECT_EQ(state("AXHeading", "The Heading").value, "The Heading");
  EXPECT_EQ(state("AXTextField", "The Entry").value, "first 世界");
  EXPECT_EQ(state("AXButton", "The Disabled").enabled, false);
  EXPECT_TRUE(std::ranges::any_of(
      elements, [](const Met& met) { return met.state.value == "Some paragraph text"; }));

  // The page says where its button is, within the view that fills the window.
  app.send("frames");
  int x = 0, y = 0, width = 0, height = 0;
  ASSERT_TRUE(app.program().waitFor([&](std::string_view line) {
    return std::sscanf(std::string(line).c_str(), "title frame %d %d %d %d", &x, &y, &width,
                       &height) == 4;
  }));
  const Rect view = *state("AXWebArea", "The Page").frame;
  const Rect button = *state("AXButton", "The Button").frame;
  EXPECT_NEAR(button.x, view.x + x, 1);
  EXPECT_NEAR(button.y, view.y + y, 1);
  EXPECT_NEAR(button.w, width, 1);
  EXPECT_NEAR(button.h, height, 1);
  EXPECT_EQ(state("AXButton", "Far Below").frame->w, 0);

  EXPECT_EQ(session->perform(find(elements, "AXButton", "The Button")->element, AXAction::press),
            AXError::success);
  EXPECT_TRUE(app.program().waitForLine("title clicked"));
  EXPECT_NE(session->perform(find(elements, "AXButton", "The Disabled")->element, AXAction::press),
            AXError::success);
  // The engine offers no way to set a text.
  EXPECT_EQ(session->setValue(find(elements, "AXTextField", "The Entry")->element, "x"),
            AXError::attributeUnsupported);
}

}  // namespace
}  // namespace vesko::test
