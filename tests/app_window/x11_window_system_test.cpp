// Windows of real applications under a real window manager, checked with other programs.
#include "platform/linux/x11_window_system.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "capture/x11_test_server.h"
#include "input/desktop.h"
#include "platform/linux/x11_screen_source.h"
#include "platform/linux/x11_watch.h"

namespace vesko {

void PrintTo(const Rect& rect, std::ostream* out) {
  *out << rect.x << "," << rect.y << " " << rect.w << "x" << rect.h;
}

namespace {

using test::eventually;
using test::outputOf;
using test::Program;

const std::string apps = VESKO_APPS;

struct Kind {
  const char* name;
  std::vector<std::string> command;
};

std::string hex(std::uint32_t window) {
  std::ostringstream text;
  text << "0x" << std::hex << window;
  return text.str();
}

/// Where the window manager's own window around this one lies, as the server says.
Rect measuredFrame(std::uint32_t window) {
  xcb_connection_t* const c = xcb_connect(nullptr, nullptr);
  const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
  for (;;) {
    const XcbPtr<xcb_query_tree_reply_t> tree(
        xcb_query_tree_reply(c, xcb_query_tree(c, window), nullptr));
    if (!tree || tree->parent == root) break;
    window = tree->parent;
  }
  const XcbPtr<xcb_get_geometry_reply_t> frame(
      xcb_get_geometry_reply(c, xcb_get_geometry(c, window), nullptr));
  xcb_disconnect(c);
  if (!frame) return {};
  const double border = 2 * frame->border_width;
  return {double(frame->x), double(frame->y), frame->width + border, frame->height + border};
}

class X11WindowSystemTest : public testing::Test {
 protected:
  std::optional<DesktopWindow> windowOf(pid_t pid) {
    const auto windows = system.windows(pid);
    return windows && !windows->empty() ? std::optional(windows->front()) : std::nullopt;
  }
  /// Waits until the program shows a window that has the keyboard.
  DesktopWindow shown(pid_t pid) {
    std::optional<DesktopWindow> window;
    EXPECT_TRUE(eventually([&] {
      window = windowOf(pid);
      return window && window->focused;
    }));
    return window.value_or(DesktopWindow{});
  }
  DesktopWindow now(const DesktopWindow& window) {
    return windowOf(window.pid).value_or(DesktopWindow{});
  }

  X11Sessions sessions;
  X11WindowSystem system{sessions};
  X11ScreenSource screen;
};

TEST_F(X11WindowSystemTest, OperatesWindowsOfEveryToolkit) {
  const std::vector<Kind> kinds{
      {"GTK 3 window", {apps + "/windows_gtk3"}}, {"GTK 3 window", {apps + "/windows_gtk3", "csd"}},
      {"GTK 4 window", {apps + "/windows_gtk4"}}, {"GTK 4 window", {apps + "/windows_gtk4", "csd"}},
      {"Qt 5 window", {apps + "/windows_qt5"}},
  };
  const Program other({"xterm", "-geometry", "20x5+900+600"});
  const DesktopWindow terminal = shown(other.pid());
  for (const Kind& kind : kinds) {
    SCOPED_TRACE(kind.command.back());
    const Program program(kind.command);
    const DesktopWindow window = shown(program.pid());
    ASSERT_EQ(window.title, kind.name);
    EXPECT_EQ(window.frame, measuredFrame(window.number));
    EXPECT_EQ(window.frame, screen.windowFrame(window.number));

    for (const Point to : {Point{0, 0}, Point{40, 70}, Point{700, 400}}) {
      EXPECT_EQ(system.move(window.number, to), AXError::success);
      const Rect frame = measuredFrame(window.number);
      EXPECT_EQ((std::pair{frame.x, frame.y}), (std::pair{to.x, to.y}));
      EXPECT_EQ(now(window).frame, frame);
    }
    EXPECT_EQ(system.resize(window.number, 640, 420), AXError::success);
    EXPECT_EQ(measuredFrame(window.number), (Rect{700, 400, 640, 420}));

    EXPECT_EQ(system.minimize(window.number), AXError::success);
    EXPECT_TRUE(now(window).minimized);
    EXPECT_EQ(system.minimize(window.number), AXError::success);
    EXPECT_EQ(system.focus(terminal.number), AXError::success);
    EXPECT_EQ(system.windows(std::nullopt)->front().number, terminal.number);
    EXPECT_EQ(system.focus(window.number), AXError::success);
    EXPECT_EQ(now(window).frame, (Rect{700, 400, 640, 420}));
    EXPECT_TRUE(now(window).focused && !now(window).minimized && !now(terminal).focused);
    EXPECT_EQ(outputOf({"xdotool", "getactivewindow"}), std::to_string(window.number) + "\n");

    EXPECT_EQ(system.toggleFullScreen(window.number), AXError::success);
    EXPECT_EQ(now(window).frame, (Rect{0, 0, 1920, 1080}));
    EXPECT_EQ(system.move(window.number, {5, 5}), AXError::attributeUnsupported);
    EXPECT_EQ(system.toggleFullScreen(window.number), AXError::success);
    const Rect restored = measuredFrame(window.number);  // where is up to the toolkit
    EXPECT_EQ((std::pair{restored.w, restored.h}), (std::pair{640.0, 420.0}));
  }
}

TEST_F(X11WindowSystemTest, RestoresAMaximizedWindowToMoveIt) {
  const Program program({apps + "/windows_gtk3"});
  const DesktopWindow window = shown(program.pid());
  outputOf({"wmctrl", "-i", "-r", hex(window.number), "-b", "add,maximized_vert,maximized_horz"});
  ASSERT_TRUE(eventually([&] { return now(window).frame.w > 1900; }));
  EXPECT_EQ(system.resize(window.number, 600, 350), AXError::success);
  EXPECT_EQ(system.move(window.number, {33, 44}), AXError::success);
  EXPECT_EQ(measuredFrame(window.number), (Rect{33, 44, 600, 350}));
}

TEST_F(X11WindowSystemTest, KeepsToTheSizesOfTheWindow) {
  const Program terminal({"xterm", "-geometry", "80x24+100+100"});
  const DesktopWindow window = shown(terminal.pid());
  EXPECT_EQ(system.resize(window.number, 701, 403), AXError::success);
  const Rect frame = now(window).frame;
  EXPECT_NEAR(frame.w, 701, 12);
  EXPECT_NEAR(frame.h, 403, 20);
  // The same again changes nothing, and one pixel is less than one character.
  EXPECT_EQ(system.resize(window.number, 701, 403), AXError::success);
  EXPECT_EQ(system.resize(window.number, 1, 1), AXError::success);
  EXPECT_LT(now(window).frame.w, 100);

  const Program fixed({apps + "/windows_gtk3", "fixed"});
  const DesktopWindow small = shown(fixed.pid());
  EXPECT_EQ(system.resize(small.number, 700, 500), AXError::attributeUnsupported);
  EXPECT_EQ(now(small).frame, small.frame);
}

TEST_F(X11WindowSystemTest, LeavesShadowsOutOfTheFrame) {
  const Program program({apps + "/windows_gtk3", "csd"});
  const DesktopWindow window = shown(program.pid());
  outputOf({"xprop", "-id", hex(window.number), "-f", "_GTK_FRAME_EXTENTS", "32c", "-set",
            "_GTK_FRAME_EXTENTS", "10,20,30,40"});
  const Rect& old = window.frame;
  EXPECT_EQ(now(window).frame, (Rect{old.x + 10, old.y + 30, old.w - 30, old.h - 70}));
  EXPECT_EQ(now(window).frame, screen.windowFrame(window.number));
  EXPECT_EQ(system.move(window.number, {100, 100}), AXError::success);
  EXPECT_EQ(measuredFrame(window.number), (Rect{90, 70, old.w, old.h}));
  EXPECT_EQ(system.resize(window.number, 600, 400), AXError::success);
  EXPECT_EQ(measuredFrame(window.number), (Rect{90, 70, 630, 470}));
}

TEST_F(X11WindowSystemTest, TellsWhatCannotBe) {
  std::optional<Program> program(std::in_place, std::vector<std::string>{"xterm"});
  const DesktopWindow window = shown(program->pid());
  for (const double far : {32768.0, -1e9, 1e300}) {
    EXPECT_EQ(system.move(window.number, {far, 0}), AXError::illegalArgument);
    EXPECT_EQ(system.resize(window.number, 10, std::abs(far)), AXError::illegalArgument);
  }
  // A hung application does not keep its window from moving.
  program->signal(SIGSTOP);
  EXPECT_EQ(system.move(window.number, {300, 200}), AXError::success);
  program.reset();
  ASSERT_TRUE(eventually([&] { return system.windows(std::nullopt)->empty(); }));
  EXPECT_EQ(system.focus(window.number), AXError::invalidElement);
  EXPECT_EQ(system.move(window.number, {1, 1}), AXError::invalidElement);
  EXPECT_EQ(system.resize(window.number, 1, 1), AXError::invalidElement);
  EXPECT_EQ(system.minimize(window.number), AXError::invalidElement);
  EXPECT_EQ(system.toggleFullScreen(window.number), AXError::invalidElement);
}

TEST(X11WithoutManager, MovesAndFocusesDirectly) {
  test::TestServer server({"-screen", "0", "800x600x24"});
  ASSERT_FALSE(server.display.empty());
  const test::UsingDisplay here(server.display);
  const Program program({"xclock", "-geometry", "200x150+50+60"});
  X11Sessions sessions;
  X11WindowSystem system(sessions);
  std::vector<DesktopWindow> windows;
  ASSERT_TRUE(eventually([&] {
    windows = system.windows(std::nullopt).value_or(windows);
    return windows.size() == 1;
  }));
  EXPECT_EQ(system.screens(), (std::vector<Rect>{{0, 0, 800, 600}}));
  EXPECT_EQ(windows[0].pid, program.pid());
  EXPECT_EQ(windows[0].frame, (Rect{51, 61, 200, 150}));
  EXPECT_EQ(windows[0].frame, X11ScreenSource().windowFrame(windows[0].number));
  EXPECT_EQ(system.move(windows[0].number, {10, 20}), AXError::success);
  EXPECT_EQ(system.resize(windows[0].number, 300, 200), AXError::success);
  EXPECT_EQ(system.focus(windows[0].number), AXError::success);
  EXPECT_EQ(system.minimize(windows[0].number), AXError::attributeUnsupported);
  EXPECT_EQ(system.toggleFullScreen(windows[0].number), AXError::attributeUnsupported);
  windows = *system.windows(program.pid());
  EXPECT_EQ(windows[0].frame, (Rect{10, 20, 300, 200}));
  EXPECT_TRUE(windows[0].focused);
}

TEST(X11Faults, SilentServerIsGivenUp) {
  const test::TestServer server({});
  ASSERT_FALSE(server.display.empty());
  const test::UsingDisplay here(server.display);
  X11Connection x11;
  const auto answered = [&x11] {
    xcb_connection_t* const c = x11.current();
    return XcbPtr<xcb_get_input_focus_reply_t>(
               xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr)) != nullptr;
  };
  ASSERT_TRUE(x11.get());
  {
    const X11Watch longer(x11.current());
    const X11Watch watch(x11.current(), std::chrono::milliseconds(200));
    EXPECT_TRUE(answered());
    server.signal(SIGSTOP);
    EXPECT_FALSE(answered());
  }
  EXPECT_FALSE(x11.get());
  server.signal(SIGCONT);
  EXPECT_TRUE(x11.get() && answered());
}

TEST(X11Faults, ServerThatHangsOrIsGone) {
  std::optional<test::TestServer> server(std::in_place, std::vector<std::string>{});
  ASSERT_FALSE(server->display.empty());
  const test::UsingDisplay here(server->display);
  X11Sessions used;
  X11WindowSystem withConnection(used);
  ASSERT_TRUE(withConnection.windows(std::nullopt));
  server->signal(SIGSTOP);
  X11Sessions fresh;
  X11WindowSystem withoutConnection(fresh);
  for (X11WindowSystem* system : {&withConnection, &withoutConnection})
    EXPECT_EQ(system->windows(std::nullopt).error(), AXError::cannotComplete);
  EXPECT_EQ(withConnection.screens().error(), AXError::cannotComplete);
  EXPECT_EQ(withoutConnection.focus(0x200001), AXError::failure);
  server->signal(SIGCONT);
  EXPECT_TRUE(eventually([&] { return withConnection.windows(std::nullopt).has_value(); }));
  server->stop();
  EXPECT_EQ(withConnection.windows(std::nullopt).error(), AXError::cannotComplete);
  EXPECT_EQ(withConnection.move(0x200001, {1, 1}), AXError::failure);
}

}  // namespace
}  // namespace vesko
