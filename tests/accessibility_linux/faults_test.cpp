// Applications that hang, die, flood or lie, a bus that comes and goes, and many sessions at once.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "accessible_app.h"
#include "capture/x11_test_server.h"
#include "platform/linux/atspi_accessibility.h"
#include "platform/linux/atspi_objects.h"
#include "platform/linux/atspi_windows.h"

namespace vesko::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// Kilobytes, at their most so far.
long peakMemory() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

struct Walked {
  std::vector<Met> elements;
  bool incomplete = false;
};

Walked walkApplication(AtspiAccessibility& accessibility, pid_t pid) {
  const auto [session, root] = lookAt(accessibility, pid);
  auto elements = walk(*session, root);
  return {std::move(elements), session->incomplete()};
}

TEST(AccessibilityFaults, MisbehavingApplicationsEndNoWalkLate) {
  struct Case {
    const char* mode;
    std::size_t atLeast;  ///< elements met
    std::size_t atMost;
    bool incomplete;
  };
  // A circle is met once, so it ends; what is invented on the way counts as any other element.
  const Case cases[] = {{"cycle", 2, 500, false},     {"liar", 2, 500, false},
                        {"flood", 3000, 3000, false}, {"long", 52, 52, false},
                        {"wrong", 1, 1, false},       {"silent", 2, 2, true},
                        {"dying", 2, 52, true}};
  X11Sessions windows;
  AtspiAccessibility accessibility(windows);
  for (const Case& wrong : cases) {
    SCOPED_TRACE(wrong.mode);
    AccessibleApp app("misbehaving_accessible", {wrong.mode});
    const long before = peakMemory();
    const Walked walked = walkApplication(accessibility, app.pid());
    EXPECT_GE(walked.elements.size(), wrong.atLeast);
    EXPECT_LE(walked.elements.size(), wrong.atMost);
    EXPECT_EQ(walked.incomplete, wrong.incomplete);
    EXPECT_LT(peakMemory() - before, 200 << 10);
    for (const Met& met : walked.elements)
      EXPECT_LE(met.state.title.value_or("").size(), maxAXValueBytes);
  }
}

TEST(AccessibilityFaults, ManyWithManyChildrenShareOneLimit) {
  AccessibleApp app("misbehaving_accessible", {"orchard"});
  X11Sessions windows;
  AtspiAccessibility accessibility(windows);
  const auto [session, root] = lookAt(accessibility, app.pid());
  const auto top = session->read(std::span(&root, 1), axAttributes::children, 10)[0].children;
  ASSERT_EQ(top.size(), 1U);
  const auto parents = session->read(top, axAttributes::children, 100)[0].children;
  ASSERT_EQ(parents.size(), 50U);
  const long before = peakMemory();
  std::size_t named = 0;
  std::size_t cut = 0;
  for (const AXElementState& state : session->read(parents, axAttributes::all, 20'000)) {
    EXPECT_EQ(state.role, "AXGroup");
    named += state.children.size();
    if (state.moreChildren) ++cut;
  }
  EXPECT_EQ(named, 20'000U);
  EXPECT_GE(cut, 49U);
  EXPECT_LT(peakMemory() - before, 100 << 10);
}

TEST(AccessibilityFaults, SessionRemembersSoMuchAndNoMore) {
  AtspiObjects many(nullptr);
  const AXElement root = many.root(":1.1").value();
  std::optional<AXElement> last;
  for (std::size_t i = 0; i < 2 * AtspiObjects::maxElements; ++i)
    last = many.element(":1.1", "/" + std::to_string(i), root);
  EXPECT_FALSE(last);
  EXPECT_EQ(many.size(), AtspiObjects::maxElements);
  EXPECT_EQ(many.root(":1.1"), root);

  AtspiObjects longPaths(nullptr);
  const std::string path(1 << 20, 'p');
  for (int i = 0; i < 100; ++i) longPaths.element(":1.1", path + std::to_string(i), 0);
  EXPECT_LE(longPaths.size() * path.size(), AtspiObjects::maxTextBytes);
  EXPECT_TRUE(longPaths.element(":1.1", "/short", 0));

  AtspiObjects names(nullptr);
  for (std::size_t i = 0; i <= AtspiObjects::maxApplications; ++i)
    last = names.root(":1." + std::to_string(i));
  EXPECT_FALSE(last);
}

TEST(AccessibilityFaults, StoppedApplicationEndsWithTheDeadlineOrBefore) {
  AccessibleApp app("accessible_gtk3", {"many", "600"});
  X11Sessions windows;
  AtspiAccessibility accessibility(windows);
  const Walked whole = walkApplication(accessibility, app.pid());
  EXPECT_FALSE(whole.incomplete);
  app.program().signal(SIGSTOP);
  const auto session = accessibility.begin(Clock::now() + 30s);
  const auto root = session->application(app.pid());
  ASSERT_TRUE(root);
  const auto state = session->read(std::span(&*root, 1), axAttributes::all, 100)[0];
  EXPECT_EQ(state.error, AXError::cannotComplete);
  EXPECT_TRUE(session->incomplete());
  // Given up: nothing more is waited for.
  EXPECT_EQ(session->read(std::span(&*root, 1), axAttributes::all, 100)[0].error,
            AXError::cannotComplete);
  EXPECT_EQ(session->perform(*root, AXAction::press), AXError::cannotComplete);
  // Beside it others are read as ever.
  AccessibleApp other("accessible_gtk3", {"many", "60"});
  EXPECT_FALSE(walkApplication(accessibility, other.pid()).incomplete);
  app.program().signal(SIGCONT);
  EXPECT_EQ(walkApplication(accessibility, app.pid()).elements.size(), whole.elements.size());
}

TEST(AccessibilityFaults, SessionsRunSideBySide) {
  AccessibleApp app("accessible_gtk3", {"many", "300"});
  X11Sessions windows;
  AtspiAccessibility accessibility(windows, 50ms);
  const std::size_t expected = walkApplication(accessibility, app.pid()).elements.size();
  EXPECT_GT(expected, 200U);
  std::atomic<int> wrong = 0;
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] {
        for (int round = 0; round < 5; ++round) {
          const Walked walked = walkApplication(accessibility, app.pid());
          if (walked.elements.size() != expected || walked.incomplete) ++wrong;
        }
      });
    }
  }
  EXPECT_EQ(wrong, 0);
}

TEST(AccessibilityFaults, StaleListsDoNotHideElements) {
  AccessibleApp app("accessible_gtk3", {"form"});
  X11Sessions windows;
  AtspiAccessibility accessibility(windows);
  walkApplication(accessibility, app.pid());
  app.send("add");
  EXPECT_TRUE(app.program().waitForLine("added"));
  const Walked later = walkApplication(accessibility, app.pid());
  EXPECT_TRUE(find(later.elements, "AXButton", "Added Later"));
  EXPECT_EQ(accessibility.begin(Clock::now() + 5s)->application(::getpid()).error(),
            AXError::apiDisabled);
}

TEST(AccessibilityFaults, BusThatIsNotThere) {
  const std::string address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  X11Sessions windows;
  AtspiAccessibility accessibility(windows);
  for (const char* broken : {"unix:path=/nonexistent", "tcp:host=nowhere", ""}) {
    ::setenv("DBUS_SESSION_BUS_ADDRESS", broken, 1);
    const auto session = accessibility.begin(Clock::now() + 5s);
    EXPECT_EQ(session->application(1).error(), AXError::apiDisabled) << broken;
    EXPECT_EQ(session->systemWide().error(), AXError::apiDisabled);
    const AXElement none = 7;
    EXPECT_EQ(session->read(std::span(&none, 1), axAttributes::all, 1)[0].error,
              AXError::invalidElement);
    EXPECT_EQ(session->setValue(none, "x"), AXError::invalidElement);
  }
  ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
  EXPECT_TRUE(accessibility.begin(Clock::now() + 30s)->systemWide());
}

/// Leaves DISPLAY as it is.
void readWindowsOfAHungDesktop() {
  const TestServer server({});
  ASSERT_FALSE(server.display.empty());
  ::setenv("DISPLAY", server.display.c_str(), 1);
  X11Sessions used;
  ASSERT_TRUE(used.borrow(Clock::now() + 30s));
  server.signal(SIGSTOP);
  X11Sessions fresh;
  for (X11Sessions* sessions : {&used, &fresh}) {
    AtspiWindows windows(*sessions, Clock::now() + 200ms);
    EXPECT_TRUE(windows.windowsOf(::getpid()).windows.empty());
    EXPECT_FALSE(windows.activate(0x200001));
  }
}

// In a process of its own: a thread that still waits for the server reads the environment, which
// nobody may change back meanwhile.
TEST(AccessibilityFaults, DesktopThatHangs) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        readWindowsOfAHungDesktop();
        std::_Exit(HasFailure() ? 1 : 0);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace vesko::test
