// The applications that run and that are installed, and the windows of those that run.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <vector>

#include "base/geometry.h"
#include "platform/accessibility.h"

namespace vesko {

struct RunningApplication {
  pid_t pid = 0;
  std::string bundleIdentifier = {};  ///< empty when the process has none
  std::string name = {};              ///< for people to read
  /// Differs between two processes that had the same pid at different times. No comma, bracket or
  /// slash.
  std::string startToken = {};
};

struct InstalledApplication {
  std::string bundleIdentifier = {};
  std::string displayName = {};  ///< localised
  std::string name = {};
};

/// A place in the desktop's window system that a person can see and use, as its manager knows it.
struct DesktopWindow {
  std::uint32_t number = 0;  ///< also what a capture of one window takes
  pid_t pid = 0;
  std::optional<std::string> title = {};
  /// Screen points: with its decorations, without shadows, as a capture of it shows.
  Rect frame = {};
  bool focused = false;
  bool minimized = false;
};

/// Any thread, several at once.
class Applications {
 public:
  virtual ~Applications() = default;

  /// Those with a user interface, in a stable order.
  virtual std::vector<RunningApplication> running() = 0;
  /// Any live process, also one without windows; nothing once it has ended.
  virtual std::optional<RunningApplication> process(pid_t pid) = 0;
  /// The one that has the keyboard.
  virtual std::optional<RunningApplication> frontmost() = 0;

  virtual std::vector<InstalledApplication> installed() = 0;
  /// The identifier is the caller's text: anything but the name of an installed application finds
  /// nothing.
  virtual std::optional<InstalledApplication> installed(const std::string& bundleIdentifier) = 0;

  /// The process of the started application, or of its running instance when it keeps to one. The
  /// error is the desktop's own text.
  virtual std::expected<pid_t, std::string> launch(const InstalledApplication& application) = 0;
  /// Brings it to the front; true once it is there, false when it did not come within a few
  /// seconds.
  virtual bool activate(const RunningApplication& application) = 0;
  /// Asks it to quit as its user would; true once it has ended, or has taken the request and asks
  /// its user first, as about an unsaved document; false when it refuses, does not react, or works
  /// on without windows.
  virtual bool quit(const RunningApplication& application) = 0;
};

/// Any thread, several at once. Every operation waits until the window system shows its effect, a
/// few seconds at most. Errors: invalidElement once the window is gone, attributeUnsupported when
/// its manager says that this window cannot do it, or cannot do it as it is now (moving one that
/// fills the screen), illegalArgument for a place or size that the desktop cannot express, failure
/// when it did not happen. A desktop that does not answer: failure, listing and
/// screens cannotComplete.
class WindowSystem {
 public:
  virtual ~WindowSystem() = default;

  /// All windows that a person would count as such, of one process or of all, front to back.
  virtual std::expected<std::vector<DesktopWindow>, AXError> windows(std::optional<pid_t> pid) = 0;

  /// Where the screens lie, in the space of window frames.
  virtual std::expected<std::vector<Rect>, AXError> screens() = 0;

  /// Raises it, restores it when it is minimised, gives it the keyboard.
  virtual AXError focus(std::uint32_t window) = 0;
  /// The frame's new top left corner.
  virtual AXError move(std::uint32_t window, Point to) = 0;
  /// The frame's new size; a window that keeps a nearby size of its own (whole characters, a
  /// minimum) has still been resized.
  virtual AXError resize(std::uint32_t window, double width, double height) = 0;
  virtual AXError minimize(std::uint32_t window) = 0;
  virtual AXError toggleFullScreen(std::uint32_t window) = 0;
};

}  // namespace vesko
