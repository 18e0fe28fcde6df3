// Captures of real X servers, compared with what the windows are known to show.
#include "platform/linux/x11_screen_source.h"

#include <gtest/gtest.h>
#include <xcb/res.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string_view>

#include "platform/linux/x11_pixels.h"
#include "platform/linux/x11_window_capture.h"
#include "x11_test_server.h"

namespace vesko {
namespace {

using test::PaintedWindow;
using test::TestServer;
using test::UsingDisplay;

std::uint32_t pattern(int x, int y) {
  return static_cast<std::uint32_t>(x * 5 + y * 1031) * 0x010203U & 0xFFFFFFU;
}
std::uint32_t otherPattern(int x, int y) {
  return pattern(y + 7, x) ^ 0xFFFFFFU;
}

/// Mappings of this process that a server may share.
int sharedSegments() {
  std::ifstream maps("/proc/self/maps");
  int count = 0;
  for (std::string line; std::getline(maps, line);) count += line.contains("memfd:capture") ? 1 : 0;
  return count;
}

class X11Test : public testing::Test {
 protected:
  X11Test() : connection_(xcb_connect(nullptr, nullptr)) {
    screen_ = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data;
    movePointer(1900, 1060);
  }
  ~X11Test() override { xcb_disconnect(connection_); }

  void sync() {
    std::free(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
  }
  xcb_atom_t atom(std::string_view name) {
    const XcbPtr<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(
        connection_,
        xcb_intern_atom(connection_, 0, static_cast<std::uint16_t>(name.size()), name.data()),
        nullptr));
    return reply ? reply->atom : 0U;
  }
  void movePointer(int x, int y) {
    xcb_warp_pointer(connection_, 0, screen_->root, 0, 0, 0, 0, static_cast<std::int16_t>(x),
                     static_cast<std::int16_t>(y));
    sync();
  }
  void configure(const PaintedWindow& window, std::uint16_t mask,
                 std::initializer_list<std::uint32_t> values) {
    xcb_configure_window(connection_, window.id(), mask, std::data(values));
    sync();
  }

  /// The window's pixels equal its pattern, except in the far corner (pointer).
  static void expectShows(const ScreenSource::Result<Image>& image, const PaintedWindow& window) {
    ASSERT_TRUE(image);
    ASSERT_EQ(image->size, (PixelSize{window.width(), window.height()}));
    const std::uint32_t mask = image->opaque ? 0xFFFFFFU : 0xFFFFFFFFU;
    for (int y = 0; y < image->size.height; ++y) {
      for (int x = 0; x < image->size.width; ++x)
        ASSERT_EQ(image->row(y)[x] & mask, window.colorAt(x, y) & mask) << x << "," << y;
    }
  }
  ScreenSource::Result<Image> captureWindow(const PaintedWindow& window) {
    return source_.captureWindow(window.id(), {window.width(), window.height()});
  }

  xcb_connection_t* connection_;
  xcb_screen_t* screen_ = nullptr;
  X11ScreenSource source_;
};

TEST_F(X11Test, DisplayShowsWhatTheServerShows) {
  const PaintedWindow below({.x = 100, .y = 50, .width = 400, .height = 300}, pattern);
  const PaintedWindow above({.x = 300, .y = 200, .width = 200, .height = 250}, otherPattern);
  const auto displays = source_.displays();
  ASSERT_TRUE(displays);
  ASSERT_EQ(displays->size(), 1U);
  const ScreenDisplay& display = displays->front();
  EXPECT_TRUE(display.primary);
  EXPECT_EQ(display.bounds, (Rect{0, 0, 1920, 1080}));

  const auto image = source_.captureDisplay(display.id, display.bounds, {1920, 1080});
  ASSERT_TRUE(image);
  ASSERT_EQ(image->size, (PixelSize{1920, 1080}));
  const XcbPtr<xcb_get_image_reply_t> expected(xcb_get_image_reply(
      connection_,
      xcb_get_image(connection_, XCB_IMAGE_FORMAT_Z_PIXMAP, screen_->root, 0, 0, 1920, 1080, ~0U),
      nullptr));
  ASSERT_TRUE(expected);
  const auto* pixels = reinterpret_cast<const std::uint32_t*>(xcb_get_image_data(expected.get()));
  for (int y = 0; y < 1000; ++y) {
    for (int x = 0; x < 1920; ++x)
      ASSERT_EQ(image->row(y)[x] & 0xFFFFFF, pixels[y * 1920 + x] & 0xFFFFFF) << x << "," << y;
  }
  EXPECT_EQ(image->row(210)[310] & 0xFFFFFF, otherPattern(10, 10));
}

TEST_F(X11Test, RegionsStayInsideTheDisplay) {
  const PaintedWindow window({.x = 1820, .y = 1000, .width = 100, .height = 80}, pattern);
  movePointer(5, 5);
  const std::uint32_t display = source_.displays()->front().id;
  struct Case {
    Rect area;
    PixelSize output;
    int left, top;  ///< in the window
  };
  for (const Case& each :
       {Case{{1830, 1010, 20, 10}, {20, 10}, 10, 10}, Case{{1900, 1070, 20, 10}, {20, 10}, 80, 70},
        Case{{1829.6, 1010.4, 7.5, 3}, {8, 3}, 10, 10},
        Case{{1919.8, 1079.7, 0.2, 0.3}, {1, 1}, 99, 79}}) {
    SCOPED_TRACE(each.area.x);
    const auto image = source_.captureDisplay(display, each.area, each.output);
    ASSERT_TRUE(image);
    ASSERT_EQ(image->size, each.output);
    for (int y = 0; y < each.output.height; ++y) {
      for (int x = 0; x < each.output.width; ++x)
        ASSERT_EQ(image->row(y)[x] & 0xFFFFFF, pattern(each.left + x, each.top + y));
    }
  }
  EXPECT_EQ(source_.captureDisplay(display + 12345, {0, 0, 5, 5}, {5, 5}).error(),
            ScreenSourceError::displayGone);
}

TEST_F(X11Test, DrawsThePointer) {
  const PaintedWindow window({.x = 200, .y = 200}, [](int, int) { return 0xFFFFFFU; });
  // A solid square of 8 by 8 pixels, red, held by its middle.
  const xcb_pixmap_t shape = xcb_generate_id(connection_);
  xcb_create_pixmap(connection_, 1, shape, screen_->root, 8, 8);
  const xcb_gcontext_t gc = xcb_generate_id(connection_);
  const std::uint32_t one = 1;
  xcb_create_gc(connection_, gc, shape, XCB_GC_FOREGROUND, &one);
  const xcb_rectangle_t all{0, 0, 8, 8};
  xcb_poly_fill_rectangle(connection_, shape, gc, 1, &all);
  const xcb_cursor_t cursor = xcb_generate_id(connection_);
  xcb_create_cursor(connection_, cursor, shape, shape, 0xFFFF, 0, 0, 0, 0, 0, 4, 4);
  xcb_change_window_attributes(connection_, window.id(), XCB_CW_CURSOR, &cursor);

  struct Case {
    int x, y;
  };
  for (const auto& [x, y] : {Case{250, 240}, Case{201, 201}}) {
    movePointer(x, y);
    const auto image =
        source_.captureDisplay(source_.displays()->front().id, {200, 200, 100, 80}, {100, 80});
    ASSERT_TRUE(image);
    for (int row = 0; row < 80; ++row) {
      for (int column = 0; column < 100; ++column) {
        const int dx = 200 + column - x;
        const int dy = 200 + row - y;
        const bool inside = dx >= -4 && dx < 4 && dy >= -4 && dy < 4;
        ASSERT_EQ(image->row(row)[column] & 0xFFFFFF, inside ? 0xFF0000U : 0xFFFFFFU)
            << column << "," << row;
      }
    }
  }
}

TEST_F(X11Test, CapturesWindowsWhereverTheyLie) {
  struct Case {
    std::string name;
    PaintedWindow::Options options;
    bool covered;
  };
  for (const Case& each : {Case{"plain", {.x = 300, .y = 100}, false},
                           Case{"bordered", {.x = 300, .y = 100, .border = 5}, false},
                           Case{"covered", {.x = 300, .y = 100, .width = 500, .height = 400}, true},
                           Case{"off the left edge", {.x = -60, .y = -40}, false},
                           Case{"off the right edge", {.x = 1870, .y = 1050}, true},
                           Case{"wholly off", {.x = 3000, .y = 100}, false},
                           Case{"one pixel", {.x = 10, .y = 10, .width = 1, .height = 1}, true}}) {
    SCOPED_TRACE(each.name);
    const PaintedWindow window(each.options, pattern);
    std::unique_ptr<PaintedWindow> cover;
    if (each.covered)
      cover = std::make_unique<PaintedWindow>(
          PaintedWindow::Options{
              .x = each.options.x - 10, .y = each.options.y - 10, .width = 300, .height = 200},
          otherPattern);
    const auto frame = source_.windowFrame(window.id());
    ASSERT_TRUE(frame);
    EXPECT_EQ(*frame,
              (Rect{static_cast<double>(each.options.x + each.options.border),
                    static_cast<double>(each.options.y + each.options.border),
                    static_cast<double>(window.width()), static_cast<double>(window.height())}));
    for (int round = 0; round < 3; ++round) expectShows(captureWindow(window), window);
  }
}

TEST_F(X11Test, KeepsTheAlphaOfDeepWindows) {
  const auto translucent = [](int x, int y) {
    return static_cast<std::uint32_t>(x + y) << 24 | 0x102030U;
  };
  const PaintedWindow window({.x = 300, .y = 300, .depth = 32}, translucent);
  const PaintedWindow cover({.x = 320, .y = 320, .width = 20, .height = 20}, pattern);
  const auto image = captureWindow(window);
  ASSERT_TRUE(image);
  EXPECT_FALSE(image->opaque);
  expectShows(image, window);
}

TEST_F(X11Test, CapturesManagedWindowsAndTheirChildren) {
  // Kept for good: the server gives the ids of ended clients to new ones, and the window manager
  // may still be handling the old window when its id already means another.
  static const PaintedWindow window({.width = 300, .height = 200, .managed = true}, pattern);
  const PaintedWindow child({.x = 30, .y = 20, .width = 50, .height = 40, .parent = window.id()},
                            otherPattern);
  expectShows(captureWindow(child), child);
  // With the frame that the window manager put around it.
  const XcbPtr<xcb_query_tree_reply_t> tree(
      xcb_query_tree_reply(connection_, xcb_query_tree(connection_, window.id()), nullptr));
  ASSERT_TRUE(tree);
  ASSERT_NE(tree->parent, screen_->root);
  const auto frame = source_.windowFrame(window.id());
  ASSERT_TRUE(frame);
  const XcbPtr<xcb_translate_coordinates_reply_t> origin(xcb_translate_coordinates_reply(
      connection_, xcb_translate_coordinates(connection_, window.id(), screen_->root, 0, 0),
      nullptr));
  const int left = origin->dst_x - static_cast<int>(frame->x);
  const int top = origin->dst_y - static_cast<int>(frame->y);
  EXPECT_GT(top, 0);
  const auto whole = captureWindow(window);
  ASSERT_TRUE(whole);
  EXPECT_EQ(whole->size, (PixelSize{static_cast<int>(frame->w), static_cast<int>(frame->h)}));
  EXPECT_EQ(whole->row(top + 5)[left + 5] & 0xFFFFFF, pattern(5, 5));
  EXPECT_EQ(whole->row(top + 25)[left + 35] & 0xFFFFFF, otherPattern(5, 5));
  // Without the shadows that it says it has.
  const std::uint32_t shadows[] = {10, 20, 30, 40};
  xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, window.id(), atom("_GTK_FRAME_EXTENTS"),
                      XCB_ATOM_CARDINAL, 32, 4, shadows);
  sync();
  EXPECT_EQ(*source_.windowFrame(window.id()),
            (Rect{frame->x + 10, frame->y + 30, frame->w - 30, frame->h - 70}));
  const auto inner = captureWindow(window);
  ASSERT_TRUE(inner);
  EXPECT_EQ(inner->size, (PixelSize{whole->size.width - 30, whole->size.height - 70}));
  EXPECT_EQ(inner->row(5)[5], whole->row(35)[15]);
  xcb_unmap_window(connection_, window.id());
  sync();
}

TEST_F(X11Test, FollowsAResize) {
  const PaintedWindow window({.x = 300, .y = 100}, pattern);
  expectShows(captureWindow(window), window);
  configure(window, XCB_CONFIG_WINDOW_WIDTH | XCB_CONFIG_WINDOW_HEIGHT, {120, 60});
  EXPECT_EQ(source_.windowFrame(window.id())->w, 120);
  const auto image = source_.captureWindow(window.id(), {100, 80});
  ASSERT_TRUE(image);
  EXPECT_EQ(image->size, (PixelSize{120, 60}));
}

TEST_F(X11Test, RefusesWindowsThatAreNotOnTheScreen) {
  auto window = std::make_unique<PaintedWindow>(PaintedWindow::Options{.x = 50, .y = 50}, pattern);
  const xcb_window_t id = window->id();
  const xcb_window_t inputOnly = xcb_generate_id(connection_);
  xcb_create_window(connection_, 0, inputOnly, screen_->root, 0, 0, 10, 10, 0,
                    XCB_WINDOW_CLASS_INPUT_ONLY, 0, 0, nullptr);
  xcb_map_window(connection_, inputOnly);
  sync();
  const auto expectGone = [&](xcb_window_t gone) {
    EXPECT_EQ(source_.windowFrame(gone).error(), ScreenSourceError::windowGone);
    EXPECT_EQ(source_.captureWindow(gone, {10, 10}).error(), ScreenSourceError::windowGone);
  };
  expectGone(screen_->root);
  expectGone(inputOnly);
  expectGone(0);
  expectGone(0x7FFFFFFF);
  EXPECT_TRUE(source_.windowFrame(id));
  xcb_unmap_window(connection_, id);
  sync();
  expectGone(id);
  window.reset();
  sync();
  expectGone(id);
}

TEST_F(X11Test, SeparatesMonitors) {
  const PaintedWindow window({.x = 900, .y = 400, .width = 120, .height = 100}, pattern);
  // The server's only output belongs to the left one, or it would be a third monitor.
  ASSERT_EQ(std::system("xrandr --setmonitor left 960/254x1080/286+0+0 screen"), 0);
  ASSERT_EQ(std::system("xrandr --setmonitor '*right' 960/254x1080/286+960+0 none"), 0);
  const auto atomOf = [this](std::string_view name) {
    const XcbPtr<xcb_intern_atom_reply_t> atom(xcb_intern_atom_reply(
        connection_,
        xcb_intern_atom(connection_, 1, static_cast<std::uint16_t>(name.size()), name.data()),
        nullptr));
    return atom ? atom->atom : 0;
  };
  const xcb_atom_t left = atomOf("left");
  const xcb_atom_t right = atomOf("right");
  const auto displays = source_.displays();
  ASSERT_TRUE(displays);
  ASSERT_EQ(displays->size(), 2U);
  EXPECT_EQ(source_.backingScreens()->all.size(), 2U);
  const auto find = [&](xcb_atom_t id) {
    return std::ranges::find(*displays, id, &ScreenDisplay::id);
  };
  ASSERT_NE(find(left), displays->end());
  ASSERT_NE(find(right), displays->end());
  EXPECT_EQ(find(right)->bounds, (Rect{960, 0, 960, 1080}));
  EXPECT_TRUE(find(right)->primary);
  EXPECT_FALSE(find(left)->primary);

  const auto onLeft = source_.captureDisplay(left, {0, 0, 960, 1080}, {960, 1080});
  const auto onRight = source_.captureDisplay(right, {0, 400, 60, 100}, {60, 100});
  ASSERT_TRUE(onLeft);
  ASSERT_TRUE(onRight);
  EXPECT_EQ(onLeft->row(450)[959] & 0xFFFFFF, pattern(59, 50));
  for (int x = 0; x < 60; ++x) ASSERT_EQ(onRight->row(50)[x] & 0xFFFFFF, pattern(60 + x, 50));

  ASSERT_EQ(std::system("xrandr --delmonitor left && xrandr --delmonitor right"), 0);
  EXPECT_EQ(source_.displays()->size(), 1U);
}

TEST_F(X11Test, SeveralThreadsCaptureAtOnce) {
  const PaintedWindow window({.x = 300, .y = 100, .width = 200, .height = 150}, pattern);
  const PaintedWindow cover({.x = 350, .y = 150, .width = 200, .height = 150}, otherPattern);
  const std::uint32_t display = source_.displays()->front().id;
  std::atomic<int> right = 0;
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&, i] {
        for (int round = 0; round < 10; ++round) {
          const auto image =
              i % 2 == 0 ? captureWindow(window)
                         : source_.captureDisplay(display, {300, 100, 200, 150}, {200, 150});
          if (image && (image->row(3)[3] & 0xFFFFFF) == pattern(3, 3)) ++right;
        }
      });
    }
  }
  EXPECT_EQ(right, 40);
}

TEST_F(X11Test, LeavesNothingBehind) {
  const PaintedWindow window({.x = 300, .y = 100}, pattern);
  const PaintedWindow cover({.x = 310, .y = 110}, otherPattern);
  const std::uint32_t display = source_.displays()->front().id;
  const auto captureBoth = [&] {
    EXPECT_TRUE(captureWindow(window));
    EXPECT_TRUE(source_.captureDisplay(display, {0, 0, 1920, 1080}, {1920, 1080}));
  };
  // Resources of all clients, by type: pixmaps, segments, damages, redirections.
  const auto resources = [&] {
    std::map<xcb_atom_t, std::uint32_t> counts;
    const XcbPtr<xcb_res_query_clients_reply_t> clients(
        xcb_res_query_clients_reply(connection_, xcb_res_query_clients(connection_), nullptr));
    for (auto each = xcb_res_query_clients_clients_iterator(clients.get()); each.rem > 0;
         xcb_res_client_next(&each)) {
      const XcbPtr<xcb_res_query_client_resources_reply_t> reply(
          xcb_res_query_client_resources_reply(
              connection_, xcb_res_query_client_resources(connection_, each.data->resource_base),
              nullptr));
      for (auto type = xcb_res_query_client_resources_types_iterator(reply.get()); type.rem > 0;
           xcb_res_type_next(&type))
        counts[type.data->resource_type] += type.data->count;
    }
    return counts;
  };
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  };
  captureBoth();
  const auto resourcesBefore = resources();
  const auto descriptorsBefore = descriptors();
  for (int round = 0; round < 200; ++round) captureBoth();
  EXPECT_EQ(resources(), resourcesBefore);
  EXPECT_EQ(descriptors(), descriptorsBefore);
  EXPECT_EQ(sharedSegments(), 1);
}

TEST_F(X11Test, ReleasesItsMemoryWhenIdle) {
  using namespace std::chrono_literals;
  X11ScreenSource source(1ms);
  const std::uint32_t display = source.displays()->front().id;
  for (int round = 0; round < 5; ++round) {
    auto image = source.captureDisplay(display, {0, 0, 640, 480}, {640, 480});
    ASSERT_TRUE(image);
    EXPECT_GE(sharedSegments(), 1);
    // The image keeps its pixels, whatever is released meanwhile.
    EXPECT_TRUE(source.captureDisplay(display, {0, 0, 64, 48}, {64, 48}));
    EXPECT_EQ(image->row(479)[639] & 0xFF000000, image->row(0)[0] & 0xFF000000);
    image = std::unexpected(ScreenSourceError::failed);
    const auto bound = std::chrono::steady_clock::now() + 20s;
    while (sharedSegments() > 0 && std::chrono::steady_clock::now() < bound)
      std::this_thread::yield();
    ASSERT_EQ(sharedSegments(), 0);
  }
}

TEST_F(X11Test, AnImageKeepsItsPixelsDuringLaterCaptures) {
  const PaintedWindow window({.x = 300, .y = 100}, pattern);
  const PaintedWindow other({.x = 500, .y = 100}, otherPattern);
  const auto first = captureWindow(window);
  const auto second = captureWindow(other);
  expectShows(first, window);
  expectShows(second, other);
}

TEST_F(X11Test, SurvivesTheServer) {
  TestServer first({"-screen", "0", "320x200x24"});
  ASSERT_FALSE(first.display.empty());
  const UsingDisplay using1(first.display);
  X11ScreenSource source;
  ASSERT_TRUE(source.displays());
  const std::uint32_t display = source.displays()->front().id;
  ASSERT_TRUE(source.captureDisplay(display, {0, 0, 320, 200}, {320, 200}));
  first.stop();
  EXPECT_EQ(source.displays().error(), ScreenSourceError::failed);
  EXPECT_EQ(source.captureDisplay(display, {0, 0, 9, 9}, {9, 9}).error(),
            ScreenSourceError::failed);
  EXPECT_EQ(source.windowFrame(5).error(), ScreenSourceError::failed);
  TestServer second({"-screen", "0", "640x400x24"});
  ASSERT_FALSE(second.display.empty());
  const UsingDisplay using2(second.display);
  const auto again = source.displays();
  ASSERT_TRUE(again);
  EXPECT_EQ(again->front().bounds.w, 640);
  EXPECT_TRUE(source.captureDisplay(again->front().id, {0, 0, 640, 400}, {640, 400}));
}

/// The same picture from servers that lack this or that.
TEST_F(X11Test, WorksWithPoorerServers) {
  struct Case {
    std::string name;
    std::vector<std::string> arguments;
    int depth;
    bool windows;
  };
  for (const Case& each :
       {Case{"everything", {}, 24, true},
        Case{"no shared memory", {"-extension", "MIT-SHM"}, 24, true},
        Case{"no monitors", {"-extension", "RANDR"}, 24, true},
        Case{"no composite", {"-extension", "Composite"}, 24, false}, Case{"16 bits", {}, 16, true},
        Case{"16 bits without shared memory", {"-extension", "MIT-SHM"}, 16, true}}) {
    SCOPED_TRACE(each.name);
    auto arguments = each.arguments;
    arguments.insert(arguments.end(), {"-screen", "0", "320x200x" + std::to_string(each.depth)});
    const TestServer server(arguments);
    ASSERT_FALSE(server.display.empty());
    const UsingDisplay use(server.display);
    xcb_connection_t* connection = xcb_connect(nullptr, nullptr);
    xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection)).data;
    // Pure red, green and blue are exact at every depth; an odd width needs padded rows.
    const xcb_window_t window = xcb_generate_id(connection);
    const std::uint32_t red = each.depth == 16 ? 0xF800 : 0xFF0000;
    const std::uint32_t values[] = {red, 1};
    xcb_create_window(connection, XCB_COPY_FROM_PARENT, window, screen->root, 20, 30, 77, 50, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT,
                      XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT, values);
    xcb_map_window(connection, window);
    std::free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
    const xcb_gcontext_t gc = xcb_generate_id(connection);
    const std::uint32_t green = each.depth == 16 ? 0x07E0 : 0x00FF00;
    xcb_create_gc(connection, gc, window, XCB_GC_FOREGROUND, &green);
    const xcb_rectangle_t corner{70, 45, 7, 5};
    xcb_poly_fill_rectangle(connection, window, gc, 1, &corner);
    std::free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));

    X11ScreenSource source;
    const auto displays = source.displays();
    ASSERT_TRUE(displays);
    ASSERT_EQ(displays->size(), 1U);
    EXPECT_EQ(displays->front().bounds, (Rect{0, 0, 320, 200}));
    EXPECT_TRUE(displays->front().primary);
    const auto expectWindow = [](const ScreenSource::Result<Image>& image) {
      ASSERT_TRUE(image);
      ASSERT_EQ(image->size, (PixelSize{77, 50}));
      EXPECT_EQ(image->row(0)[0] & 0xFFFFFF, 0xFF0000U);
      EXPECT_EQ(image->row(45)[69] & 0xFFFFFF, 0xFF0000U);
      EXPECT_EQ(image->row(45)[70] & 0xFFFFFF, 0x00FF00U);
      EXPECT_EQ(image->row(49)[76] & 0xFFFFFF, 0x00FF00U);
    };
    expectWindow(source.captureDisplay(displays->front().id, {20, 30, 77, 50}, {77, 50}));
    const auto alone = source.captureWindow(window, {77, 50});
    if (each.windows) {
      expectWindow(alone);
    } else {
      EXPECT_EQ(alone.error(), ScreenSourceError::failed);
    }
    xcb_disconnect(connection);
  }
}

TEST(X11PixelsTest, ConvertsEveryDirectFormat) {
  struct Case {
    std::string name;
    PixelFormat format;
    std::vector<int> bytes;  ///< two pixels
    std::uint32_t first, second;
  };
  for (const Case& each :
       {Case{"big-endian",
             {.mostSignificantFirst = true},
             {0, 1, 2, 3, 0, 4, 5, 6},
             0xFF010203,
             0xFF040506},
        Case{"blue first",
             {.red = 0xFF, .blue = 0xFF0000},
             {1, 2, 3, 0, 4, 5, 6, 0},
             0xFF010203,
             0xFF040506},
        Case{"alpha", {.alpha = 0xFF000000}, {1, 2, 3, 4, 5, 6, 7, 8}, 0x04030201, 0x08070605},
        Case{"packed 24 bits",
             {.bitsPerPixel = 24},
             {1, 2, 3, 4, 5, 6, 0, 0},
             0xFF030201,
             0xFF060504},
        Case{"5-6-5",
             {.bitsPerPixel = 16, .red = 0xF800, .green = 0x7E0, .blue = 0x1F},
             {0xFF, 0xFF, 0x10, 0x84},
             0xFFFFFFFF,
             0xFF848284},
        Case{"30 bits",
             {.red = 0x3FF00000, .green = 0xFFC00, .blue = 0x3FF},
             {0xFF, 0x03, 0, 0, 0, 0, 0xF0, 0x3F},
             0xFF0000FF,
             0xFFFF0000}}) {
    SCOPED_TRACE(each.name);
    std::vector<std::byte> bytes;
    for (const int byte : each.bytes) bytes.push_back(static_cast<std::byte>(byte));
    const auto image = convertPixels(bytes, {2, 1}, each.format);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->row(0)[0], each.first);
    EXPECT_EQ(image->row(0)[1], each.second);
    bytes.pop_back();
    EXPECT_FALSE(convertPixels(bytes, {2, 1}, each.format));
  }
}

TEST(PixelRegionTest, SubtractsRectangles) {
  const auto areaOf = [](const PixelRegion& region) {
    int area = 0;
    for (const PixelRect& rect : region.rects()) area += rect.width * rect.height;
    return area;
  };
  PixelRegion region(PixelRect{0, 0, 100, 100});
  region.subtract({200, 0, 10, 10});
  EXPECT_EQ(areaOf(region), 10000);
  region.subtract({40, 40, 20, 20});
  EXPECT_EQ(areaOf(region), 9600);
  region.subtract({-10, 50, 200, 10});
  EXPECT_EQ(areaOf(region), 9600 - 800);
  PixelRegion rest(PixelRect{0, 0, 100, 100});
  rest.subtract(region);
  EXPECT_EQ(areaOf(rest), 1200);
  region.intersect({0, 0, 50, 50});
  EXPECT_EQ(areaOf(region), 2500 - 100);
  region.subtract({0, 0, 50, 50});
  EXPECT_TRUE(region.empty());
}

}  // namespace
}  // namespace vesko
