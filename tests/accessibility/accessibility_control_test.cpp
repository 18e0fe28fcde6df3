#include "tools/accessibility_control.h"

#include <gtest/gtest.h>

#include "fakes/fake_accessibility.h"
#include "fakes/fake_applications.h"

namespace vesko {
namespace {

using ControlError = AccessibilityControl::ControlError;
using fakes::FakeElement;

class AccessibilityControlTest : public testing::Test {
 protected:
  AccessibilityControlTest() {
    editor_ =
        applications_.add({.pid = 41, .bundleIdentifier = "org.example.editor", .name = "Editor"});
    windows_.setScreens({{0, 0, 800, 600}});
    window_ = &fake_.application(editor_).add("AXWindow", "Draft");
    save_ = &window_->add("AXButton", "Save As…");
    save_->state.frame = {13, 14, 20, 20};
    field_ = &window_->add("AXTextField");
    field_->state.value = "Grüße";
    field_->state.frame = {0, 0, 10, 10};
    away_ = &window_->add("AXButton", "Away");
    away_->state.frame = {5000, 10, 20, 20};
    away_->add("AXStaticText", "inside");
  }

  Node snapshot(SnapshotRequest request = {}) {
    const auto response = control_.snapshot(request);
    EXPECT_TRUE(response) << response.error().message();
    incomplete_ = response ? response->incomplete : std::nullopt;
    return response ? response->tree : Node{};
  }
  static std::vector<std::string> titles(const std::vector<Node>& nodes) {
    std::vector<std::string> result;
    for (const Node& node : nodes) result.push_back(node.title.value_or(node.role));
    return result;
  }
  std::vector<std::string> find(FindRequest request) {
    const auto response = control_.find(request);
    EXPECT_TRUE(response) << response.error().message();
    return response ? titles(response->elements) : std::vector<std::string>();
  }
  std::string pathOf(const std::string& title) {
    FindRequest request;
    request.title = title;
    const auto response = control_.find(request);
    return response && !response->elements.empty() ? response->elements[0].path : "";
  }
  std::string failure(const auto& result) { return result ? "" : result.error().message(); }
  static std::size_t count(const Node& node) {
    std::size_t total = 1;
    for (const Node& child : node.children) total += count(child);
    return total;
  }

  fakes::FakeApplications applications_;
  fakes::FakeAccessibility fake_;
  fakes::FakeWindowSystem windows_{applications_};
  AccessibilityControl control_{fake_, applications_, windows_};
  pid_t editor_ = 0;
  FakeElement *window_ = nullptr, *save_ = nullptr, *field_ = nullptr, *away_ = nullptr;
  std::optional<std::string> incomplete_;
};

using Titles = std::vector<std::string>;

TEST_F(AccessibilityControlTest, takesSnapshotsOfWhatIsOnTheScreen) {
  Node tree = snapshot();
  EXPECT_EQ(tree.role, "AXApplication");
  ASSERT_EQ(titles(tree.children), Titles{"Draft"});
  EXPECT_EQ(titles(tree.children[0].children), (Titles{"Save As…", "AXTextField"}));
  EXPECT_EQ(tree.children[0].children[0].path,
            tree.path + "/AXWindow[title=Draft]/AXButton[title=Save As%E2%80%A6]");
  EXPECT_EQ(count(snapshot({.includeOffscreen = true})), 6U);
  // Beyond the first screen, and on a second one.
  windows_.setScreens({{0, 0, 800, 600}, {4900, 0, 800, 600}});
  EXPECT_EQ(count(snapshot()), 6U);
  windows_.setScreens({});
  EXPECT_EQ(count(snapshot()), 6U);
  EXPECT_FALSE(incomplete_);
}

TEST_F(AccessibilityControlTest, keepsToTheNumberOfNodes) {
  for (const std::int64_t max : {1, 2, 3, 4}) {
    Node tree = snapshot({.maxNodes = max});
    EXPECT_EQ(count(tree), static_cast<std::size_t>(max));
    EXPECT_FALSE(incomplete_);
  }
  // What is left out leaves its place to others.
  for (int i = 0; i < 3000; ++i) window_->add("AXCell").state.frame = {9000, 0, 1, 1};
  window_->add("AXButton", "last");
  EXPECT_EQ(titles(snapshot({.maxNodes = 5}).children[0].children).back(), "last");
}

TEST_F(AccessibilityControlTest, resolvesScopes) {
  const pid_t other = applications_.add({.pid = 42, .bundleIdentifier = "org.example.other"});
  fake_.application(other).add("AXWindow", "Other");
  fake_.focusedWindows[editor_] = window_;
  EXPECT_EQ(titles(snapshot({.scope = "app", .bundleID = "org.example.other"}).children),
            Titles{"Other"});
  const Node window = snapshot({.scope = "frontmost_window"});
  EXPECT_EQ(window.title, "Draft");
  EXPECT_EQ(snapshot({.elementPath = window.path}).title, "Draft");
  const Node system = snapshot({.scope = "system"});
  EXPECT_EQ(system.path, "AXSystemWide");
  EXPECT_EQ(system.children.size(), 2U);
  EXPECT_EQ(snapshot({.elementPath = system.children[1].path}).children.size(), 1U);
  // An application that has no accessibility is at least named.
  applications_.add({.pid = 43, .bundleIdentifier = "org.example.plain", .name = "Plain"});
  EXPECT_EQ(snapshot({.scope = "app", .bundleID = "org.example.plain"}).title, "Plain");

  fake_.focusedWindows.clear();
  for (const auto& [request, message] : std::vector<std::pair<SnapshotRequest, std::string>>{
           {{.scope = "desk"}, "invalid snapshot scope"},
           {{.scope = "app"}, "application not found"},
           {{.scope = "app", .bundleID = ""}, "application not found"},
           {{.scope = "app", .bundleID = "org.example.none"}, "application not found"},
           {{.scope = "frontmost_window"}, "AX snapshot failed with AX error -25212"},
           {{.maxNodes = 0}, "max_nodes must be between 1 and 2000"},
           {{.maxNodes = 2001}, "max_nodes must be between 1 and 2000"},
           {{.elementPath = "nonsense"}, "ax_element_gone"}})
    EXPECT_EQ(failure(control_.snapshot(request)), message);
}

TEST_F(AccessibilityControlTest, namesElementsByTitlesOnlyWhenTheseTellThemApart) {
  window_->add("AXButton", "Twin");
  FakeElement& second = window_->add("AXButton", "Twin");
  window_->add("AXLink", "Twin");
  second.add("AXImage", "second's");
  const std::string inSecond = pathOf("second's");
  EXPECT_TRUE(inSecond.ends_with("/AXButton[3]/AXImage[title=second%27s]")) << inSecond;
  EXPECT_EQ(snapshot({.elementPath = inSecond}).title, "second's");
  // The twin that a cut tree has no room for still counts.
  const Node cut = snapshot({.maxNodes = 6, .includeOffscreen = true});
  EXPECT_TRUE(cut.children[0].children.back().path.ends_with("/AXButton[2]"));
}

TEST_F(AccessibilityControlTest, findsByAllCriteria) {
  window_->add("AXButton", "save all");
  for (const auto& [request, expected] : std::vector<std::pair<FindRequest, Titles>>{
           {{.title = "SAVE"}, {"Save As…", "save all"}},
           {{.title = "SAVE", .limit = 1}, {"Save As…"}},
           {{.role = "axtextfield"}, {"AXTextField"}},
           {{.valueContains = "GRÜSSE"}, {"AXTextField"}},
           {{.title = "x", .valueContains = "grüße"}, {}},
           {{.bundleID = "org.example.editor", .title = "inside"}, {"inside"}},
           // Without a frame as near as can be; then by the gap; ties in the order of the walk.
           {{.role = "AXButton", .nearPoint = Point{10, 10}, .limit = 3},
            {"save all", "Save As…", "Away"}},
           {{.role = "AXButton", .nearPoint = Point{5001, 11}, .limit = 2}, {"Away", "save all"}}})
    EXPECT_EQ(find(request), expected);
  EXPECT_EQ(failure(control_.find({.limit = 0})), "limit must be between 1 and 100");
  EXPECT_EQ(failure(control_.find({.limit = 101})), "limit must be between 1 and 100");
  const auto found = control_.find({.title = "Save As"});
  ASSERT_EQ(found->elements.size(), 1U);
  EXPECT_EQ(found->elements[0].frame, save_->state.frame);
}

TEST_F(AccessibilityControlTest, actsOnTheElementThatThePathNames) {
  const std::string path = pathOf("save as");
  for (const auto& [word, action] :
       std::vector<std::pair<std::string, AXAction>>{{"press", AXAction::press},
                                                     {"confirm", AXAction::confirm},
                                                     {"cancel", AXAction::cancel},
                                                     {"show_menu", AXAction::showMenu},
                                                     {"raise", AXAction::raise},
                                                     {"increment", AXAction::increment},
                                                     {"decrement", AXAction::decrement}}) {
    EXPECT_TRUE(control_.performAction({path, word}));
    EXPECT_EQ(save_->performed.back(), action);
  }
  EXPECT_TRUE(control_.performAction({path, "focus"}));
  EXPECT_EQ(save_->state.focused, true);
  EXPECT_TRUE(control_.setValue({path, "née"}));
  EXPECT_EQ(save_->state.value, "née");
  EXPECT_EQ(failure(control_.performAction({path, "open"})), "unsupported AX action: open");
  EXPECT_EQ(failure(control_.performAction({path + "/AXNone[0]", "open"})), "ax_element_gone");

  save_->answer = AXError::actionUnsupported;
  EXPECT_EQ(failure(control_.performAction({path, "press"})),
            "AX action failed with AX error -25206");
  EXPECT_EQ(failure(control_.setValue({path, ""})), "set value failed with AX error -25206");
  for (const AXError gone : {AXError::invalidElement, AXError::cannotComplete}) {
    save_->answer = gone;
    EXPECT_EQ(control_.performAction({path, "press"}).error().kind,
              ControlError::Kind::elementGone);
  }
}

TEST_F(AccessibilityControlTest, aPathNeverLeadsToAnotherProcessOrElement) {
  const std::string path = pathOf("save as");
  save_->gone = true;
  EXPECT_EQ(failure(control_.performAction({path, "press"})), "ax_element_gone");
  save_->gone = false;
  EXPECT_TRUE(control_.performAction({path, "press"}));
  applications_.replace(editor_);
  EXPECT_EQ(failure(control_.performAction({path, "press"})), "ax_element_gone");
  applications_.end(editor_);
  EXPECT_EQ(failure(control_.setValue({path, "x"})), "ax_element_gone");
}

TEST_F(AccessibilityControlTest, answersWithWhatAHungOrDyingApplicationStillGave) {
  fake_.answersBeforeHanging = 3;
  EXPECT_EQ(count(snapshot()), 3U);
  EXPECT_EQ(incomplete_, "deadline");
  fake_.answersBeforeHanging = 0;
  EXPECT_EQ(failure(control_.snapshot({})), "the application does not answer");
  EXPECT_EQ(failure(control_.find({})), "the application does not answer");
  fake_.answersBeforeHanging = SIZE_MAX;
  // A child that vanishes between the list and the reading.
  field_->gone = true;
  EXPECT_EQ(titles(snapshot().children[0].children), Titles{"Save As…"});
}

TEST_F(AccessibilityControlTest, boundsWhatAnApplicationCanMakeItDo) {
  std::size_t read = 0;
  fake_.onRead = [&](std::size_t asked) { read += asked; };
  for (int i = 0; i < 50'000; ++i) window_->add("AXRow");
  EXPECT_EQ(count(snapshot({.maxNodes = 2000})), 2000U);
  EXPECT_FALSE(incomplete_);
  EXPECT_LT(read, 3000U);
  EXPECT_EQ(find({.title = "nowhere"}), Titles{});
  EXPECT_LT(read, 25'000U);

  // Rows that are not seen take nothing away from what is.
  auto rows = std::exchange(window_->children, {});
  FakeElement& hidden = window_->add("AXTable");
  hidden.state.frame = Rect{9000, 0, 1, 1};
  hidden.children = std::move(rows);
  window_->add("AXGroup").add("AXButton", "Seen");
  EXPECT_EQ(count(snapshot({.maxNodes = 2000})), 4U);
  EXPECT_FALSE(incomplete_);

  // A chain without end, a circle, and texts without measure.
  window_->children.clear();
  FakeElement* last = window_;
  for (int i = 0; i < 1000; ++i) last = &last->add("AXGroup", "level");
  EXPECT_LT(count(snapshot({.maxNodes = 2000})), 300U);
  EXPECT_EQ(incomplete_, "size");
  window_->children.clear();
  window_->children.push_back(fake_.applications[editor_]);
  EXPECT_EQ(count(snapshot()), 2U);
  window_->children.clear();
  for (int i = 0; i < 1500; ++i) window_->add("AXText").state.value = std::string(60'000, 'x');
  EXPECT_LT(count(snapshot({.maxNodes = 2000})), 1000U);
  EXPECT_EQ(incomplete_, "size");
  // Titles that every path below them repeats.
  window_->children.clear();
  last = window_;
  for (int i = 0; i < 200; ++i) last = &last->add("AXGroup", std::string(1000, 'y'));
  for (int i = 0; i < 1700; ++i) last->add("AXText");
  const auto nested = control_.snapshot({.maxNodes = 2000});
  ASSERT_TRUE(nested);
  EXPECT_EQ(nested->incomplete, "size");
  EXPECT_LT(json::encode(*nested)->size(), 32U << 20);
  fake_.applications[editor_]->children.clear();
}

}  // namespace
}  // namespace vesko
