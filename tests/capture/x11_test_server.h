// X servers and windows for tests: an Xvfb of one's own, and windows that paint a known pattern
// whenever the server asks for it, as applications do.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "platform/linux/x11_connection.h"

namespace vesko::test {

/// An X server that ends with this. `display` is empty when it did not start.
class TestServer {
 public:
  explicit TestServer(std::vector<std::string> arguments) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    arguments.insert(arguments.begin(),
                     {"Xvfb", "-displayfd", "9", "-nolisten", "tcp", "-noreset"});
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, writer.get(), 9);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    if (posix_spawnp(&pid_, "Xvfb", &actions, nullptr, argv.data(), environ) != 0) pid_ = 0;
    posix_spawn_file_actions_destroy(&actions);
    writer.reset();
    char c = 0;
    pollfd waiting{reader.get(), POLLIN, 0};
    while (::poll(&waiting, 1, 30'000) > 0 && ::read(reader.get(), &c, 1) == 1 && c != '\n')
      display.push_back(c);
    if (!display.empty()) display.insert(display.begin(), ':');
  }
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;
  ~TestServer() { stop(); }

  void signal(int number) const { ::kill(pid_, number); }
  void stop() {
    if (pid_ == 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = 0;
  }

  std::string display;

 private:
  pid_t pid_ = 0;
};

/// Points $DISPLAY elsewhere for a while.
class UsingDisplay {
 public:
  explicit UsingDisplay(const std::string& display) {
    if (const char* old = std::getenv("DISPLAY")) old_ = old;
    ::setenv("DISPLAY", display.c_str(), 1);
  }
  UsingDisplay(const UsingDisplay&) = delete;
  UsingDisplay& operator=(const UsingDisplay&) = delete;
  ~UsingDisplay() { ::setenv("DISPLAY", old_.c_str(), 1); }

 private:
  std::string old_;
};

/// A window with a connection and a thread of its own, which paints every part that the server
/// reports as exposed. Pixels are in the server's format for the window's depth.
class PaintedWindow {
 public:
  struct Options {
    int x = 0, y = 0, width = 100, height = 80;
    int border = 0;
    int depth = 24;
    bool managed = false;  ///< by the window manager
    xcb_window_t parent = 0;
  };
  using Paint = std::function<std::uint32_t(int x, int y)>;

  PaintedWindow(const Options& options, Paint paint)
      : options_(options), paint_(std::move(paint)), connection_(xcb_connect(nullptr, nullptr)) {
    screen_ = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data;
    id_ = xcb_generate_id(connection_);
    const xcb_visualid_t visual = visualOf(options.depth);
    const xcb_colormap_t colormap = xcb_generate_id(connection_);
    xcb_create_colormap(connection_, XCB_COLORMAP_ALLOC_NONE, colormap, screen_->root, visual);
    const std::uint32_t values[] = {0xFF888888U, 0, options.managed ? 0U : 1U,
                                    XCB_EVENT_MASK_EXPOSURE | XCB_EVENT_MASK_STRUCTURE_NOTIFY,
                                    colormap};
    xcb_create_window(
        connection_, static_cast<std::uint8_t>(options.depth), id_,
        options.parent ? options.parent : screen_->root, static_cast<std::int16_t>(options.x),
        static_cast<std::int16_t>(options.y), static_cast<std::uint16_t>(options.width),
        static_cast<std::uint16_t>(options.height), static_cast<std::uint16_t>(options.border),
        XCB_WINDOW_CLASS_INPUT_OUTPUT, visual,
        XCB_CW_BACK_PIXEL | XCB_CW_BORDER_PIXEL | XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK |
            XCB_CW_COLORMAP,
        values);
    xcb_map_window(connection_, id_);
    xcb_flush(connection_);
    // What lies outside the screen is never exposed, and a managed window is mapped later.
    while (options.managed ? !painted_ : !mapped_) {
      const XcbPtr<xcb_generic_event_t> event(xcb_wait_for_event(connection_));
      if (!event) return;
      handle(*event);
    }
    roundTrip();
    while (const XcbPtr<xcb_generic_event_t> event{xcb_poll_for_queued_event(connection_)})
      handle(*event);
    thread_ = std::thread([this] {
      while (const XcbPtr<xcb_generic_event_t> event{xcb_wait_for_event(connection_)}) {
        if ((event->response_type & 0x7F) == XCB_CLIENT_MESSAGE) return;
        handle(*event);
      }
    });
  }
  PaintedWindow(const PaintedWindow&) = delete;
  PaintedWindow& operator=(const PaintedWindow&) = delete;
  ~PaintedWindow() {
    if (thread_.joinable()) {
      xcb_client_message_event_t stop{};
      stop.response_type = XCB_CLIENT_MESSAGE;
      stop.format = 32;
      stop.window = id_;
      stop.type = XCB_ATOM_STRING;
      xcb_send_event(connection_, 0, id_, 0, reinterpret_cast<const char*>(&stop));
      xcb_flush(connection_);
      thread_.join();
    }
    xcb_disconnect(connection_);
  }

  xcb_window_t id() const { return id_; }
  int width() const { return options_.width; }
  int height() const { return options_.height; }
  std::uint32_t colorAt(int x, int y) const { return paint_(x, y); }

 private:
  xcb_visualid_t visualOf(int depth) const {
    for (auto depths = xcb_screen_allowed_depths_iterator(screen_); depths.rem > 0;
         xcb_depth_next(&depths)) {
      if (depths.data->depth == depth && xcb_depth_visuals_length(depths.data) > 0)
        return xcb_depth_visuals(depths.data)->visual_id;
    }
    return screen_->root_visual;
  }

  /// A reply is the proof that the server has done what it was told.
  void roundTrip() {
    std::free(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
  }

  void handle(const xcb_generic_event_t& event) {
    if ((event.response_type & 0x7F) == XCB_MAP_NOTIFY) mapped_ = true;
    if ((event.response_type & 0x7F) != XCB_EXPOSE) return;
    const auto& expose = reinterpret_cast<const xcb_expose_event_t&>(event);
    std::vector<std::uint32_t> pixels;
    for (int y = 0; y < expose.height; ++y) {
      for (int x = 0; x < expose.width; ++x) pixels.push_back(paint_(expose.x + x, expose.y + y));
    }
    const xcb_gcontext_t gc = xcb_generate_id(connection_);
    xcb_create_gc(connection_, gc, id_, 0, nullptr);
    xcb_put_image(connection_, XCB_IMAGE_FORMAT_Z_PIXMAP, id_, gc, expose.width, expose.height,
                  static_cast<std::int16_t>(expose.x), static_cast<std::int16_t>(expose.y), 0,
                  static_cast<std::uint8_t>(options_.depth),
                  static_cast<std::uint32_t>(4 * pixels.size()),
                  reinterpret_cast<const std::uint8_t*>(pixels.data()));
    xcb_free_gc(connection_, gc);
    roundTrip();
    painted_ = expose.count == 0;
  }

  Options options_;
  Paint paint_;
  xcb_connection_t* connection_;
  xcb_screen_t* screen_ = nullptr;
  xcb_window_t id_ = 0;
  bool mapped_ = false;
  bool painted_ = false;
  std::thread thread_;
};

}  // namespace vesko::test
