#include "platform/linux/x11_window_system.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <utility>

#include "platform/linux/x11_window_action.h"

namespace vesko {
namespace {

using Clock = X11Session::Clock;
using std::chrono::milliseconds;

// Above X11WindowSystem::patience, so that an action fails by its own bound; a server that hangs
// is given up here.
constexpr milliseconds serverPatience{5000};
constexpr milliseconds listPatience{2000};
// How long a window that took another size than the one expected may still change.
constexpr milliseconds sizePatience{700};

constexpr double largestCoordinate = 32767;
constexpr std::uint32_t fromPager = 2;
constexpr std::uint32_t iconicState = 3;

/// _NET_MOVERESIZE_WINDOW, data32[0].
constexpr std::uint32_t northWestGravity = 1;
constexpr std::uint32_t hasX = 1 << 8;
constexpr std::uint32_t hasY = 1 << 9;
constexpr std::uint32_t hasWidth = 1 << 10;
constexpr std::uint32_t hasHeight = 1 << 11;
constexpr std::uint32_t byPager = fromPager << 12;

std::uint32_t wire(double coordinate) {
  return static_cast<std::uint32_t>(static_cast<std::int32_t>(std::lround(coordinate)));
}

/// WM_NORMAL_HINTS of one direction.
struct SideHints {
  double minimum = 1;
  double maximum = largestCoordinate;
  double base = 0;
  double increment = 1;

  double nearest(double wanted) const {
    const double side = std::clamp(wanted, minimum, std::max(minimum, maximum));
    return base + std::floor((side - base) / increment) * increment;
  }
};

struct SizeHints {
  SideHints width, height;
};

SizeHints readSizeHints(X11Session& x11, xcb_window_t window) {
  const auto reply = x11.wait<xcb_get_property_reply_t>(xcb_get_property(
      x11.connection(), 0, window, XCB_ATOM_WM_NORMAL_HINTS, XCB_ATOM_WM_SIZE_HINTS, 0, 18));
  std::array<std::int32_t, 18> hints{};
  if (reply && reply->format == 32) {
    const auto* values = static_cast<const std::int32_t*>(xcb_get_property_value(reply.get()));
    std::copy_n(values, std::min<std::size_t>(reply->value_len, hints.size()), hints.begin());
  }
  const auto has = [flags = static_cast<std::uint32_t>(hints[0])](int bit) {
    return (flags >> bit & 1) != 0;
  };
  constexpr int minimum = 4, maximum = 5, increment = 6, base = 8;
  const auto side = [&](std::size_t offset) {
    SideHints result;
    // Each of the two stands in for the other.
    const double least = has(minimum) ? hints[5 + offset] : has(base) ? hints[15 + offset] : 1;
    const double from = has(base) ? hints[15 + offset] : has(minimum) ? hints[5 + offset] : 0;
    result.minimum = std::clamp(least, 1.0, largestCoordinate);
    result.base = std::clamp(from, 0.0, largestCoordinate);
    if (has(maximum) && hints[7 + offset] > 0) result.maximum = hints[7 + offset];
    if (has(increment) && hints[9 + offset] > 0) result.increment = hints[9 + offset];
    return result;
  };
  return {side(0), side(1)};
}

/// A side that had to change went at least towards what was wanted, and not beyond by more than
/// what it began with.
bool approaches(double before, double after, double wanted) {
  return std::abs(after - wanted) < std::abs(before - wanted) || std::abs(before - wanted) < 1;
}

/// Puts the corner of what the manager sees as the window at a place of the root window, and gives
/// the client a size. By NorthWestGravity, the one that does not depend on borders that the client
/// had before it was managed.
void place(X11Session& x11, X11WindowAction& action, const X11Window& window, Point corner,
           std::optional<std::pair<double, double>> size) {
  std::array values{wire(corner.x), wire(corner.y), 0U, 0U};
  if (size) {
    values[2] = wire(size->first);
    values[3] = wire(size->second);
  }
  if (action.managed()) {
    const std::uint32_t what = hasX | hasY | (size ? hasWidth | hasHeight : 0);
    action.ask(XAtom::netMoveResizeWindow,
               {northWestGravity | what | byPager, values[0], values[1], values[2], values[3]});
    return;
  }
  // The border is outside of the frame.
  values[0] -= static_cast<std::uint32_t>(window.border);
  values[1] -= static_cast<std::uint32_t>(window.border);
  const int what = XCB_CONFIG_WINDOW_X | XCB_CONFIG_WINDOW_Y |
                   (size ? XCB_CONFIG_WINDOW_WIDTH | XCB_CONFIG_WINDOW_HEIGHT : 0);
  xcb_configure_window(x11.connection(), window.id, static_cast<std::uint16_t>(what),
                       values.data());
}

DesktopWindow toDesktopWindow(X11Window window, xcb_window_t active) {
  if (window.title && window.title->empty()) window.title.reset();
  return {.number = window.id,
          .pid = window.pid,
          .title = std::move(window.title),
          .frame = window.frame,
          .focused = window.id == active,
          .minimized = window.hidden};
}

/// A window moves and takes another size as itself, not while it fills the screen: what is
/// maximised is restored first, as dragging it would.
AXError makeMovable(X11WindowAction& action, const X11Window& window) {
  if (window.fullScreen) return AXError::attributeUnsupported;
  if (!window.maximizedHorizontally && !window.maximizedVertically) return AXError::success;
  action.askState(false, XAtom::netWmStateMaximizedHorizontally,
                  XAtom::netWmStateMaximizedVertically);
  return action.await(
      [](const X11Window& now) { return !now.maximizedHorizontally && !now.maximizedVertically; },
      X11WindowSystem::patience);
}

/// The window once it can take another place or size; `needed` is what its manager must allow.
std::expected<X11Window, AXError> readMovable(X11WindowAction& action, XAtom needed) {
  const auto found = action.read();
  if (!found) return std::unexpected(action.error());
  if (const AXError error = makeMovable(action, *found); error != AXError::success)
    return std::unexpected(error);
  if (!action.allows(needed)) return std::unexpected(AXError::attributeUnsupported);
  const auto now = action.read();
  if (!now) return std::unexpected(action.error());
  return *now;
}

}  // namespace

std::expected<std::vector<DesktopWindow>, AXError> X11WindowSystem::windows(
    std::optional<pid_t> pid) {
  const auto x11 = sessions_.borrow(Clock::now() + listPatience);
  if (!x11) return std::unexpected(AXError::cannotComplete);
  const auto stacked = stackedWindows(*x11);
  const xcb_window_t active = activeWindow(*x11);
  auto all = readWindows(*x11, stacked);
  if (x11->broken()) return std::unexpected(AXError::cannotComplete);
  std::vector<DesktopWindow> listed;
  for (auto window = all.rbegin(); window != all.rend(); ++window) {
    if (window->ordinary && (!pid || window->pid == *pid))
      listed.push_back(toDesktopWindow(std::move(*window), active));
  }
  return listed;
}

std::expected<std::vector<Rect>, AXError> X11WindowSystem::screens() {
  const auto x11 = sessions_.borrow(Clock::now() + listPatience);
  if (!x11) return std::unexpected(AXError::cannotComplete);
  auto frames = screenFrames(*x11);
  if (x11->broken()) return std::unexpected(AXError::cannotComplete);
  return frames;
}

AXError X11WindowSystem::focus(std::uint32_t window) {
  const auto x11 = sessions_.borrow(Clock::now() + serverPatience);
  if (!x11) return AXError::failure;
  return X11WindowAction(*x11, window).focus(patience);
}

AXError X11WindowSystem::move(std::uint32_t window, Point to) {
  to = {std::round(to.x), std::round(to.y)};
  if (std::abs(to.x) > largestCoordinate || std::abs(to.y) > largestCoordinate)
    return AXError::illegalArgument;
  const auto x11 = sessions_.borrow(Clock::now() + serverPatience);
  if (!x11) return AXError::failure;
  X11WindowAction action(*x11, window);
  const auto before = readMovable(action, XAtom::netWmActionMove);
  if (!before) return before.error();

  place(*x11, action, *before, {to.x - before->shadowLeft, to.y - before->shadowTop}, std::nullopt);
  return action.await(
      [to](const X11Window& now) { return now.frame.x == to.x && now.frame.y == to.y; }, patience);
}

AXError X11WindowSystem::resize(std::uint32_t window, double width, double height) {
  width = std::max(std::round(width), 1.0);
  height = std::max(std::round(height), 1.0);
  if (width > largestCoordinate || height > largestCoordinate) return AXError::illegalArgument;
  const auto x11 = sessions_.borrow(Clock::now() + serverPatience);
  if (!x11) return AXError::failure;
  X11WindowAction action(*x11, window);
  const auto before = readMovable(action, XAtom::netWmActionResize);
  if (!before) return before.error();

  const SizeHints hints = readSizeHints(*x11, window);
  const Rect& old = before->client;
  const double wantedWidth = std::max(width - before->left - before->right, 1.0);
  const double wantedHeight = std::max(height - before->top - before->bottom, 1.0);
  const double clientWidth = hints.width.nearest(wantedWidth);
  const double clientHeight = hints.height.nearest(wantedHeight);
  // With the place it has: not every manager keeps that when it is left out.
  place(*x11, action, *before,
        {before->frame.x - before->shadowLeft, before->frame.y - before->shadowTop},
        std::pair{clientWidth, clientHeight});
  const AXError exact = action.await(
      [&](const X11Window& now) {
        return now.client.w == clientWidth && now.client.h == clientHeight;
      },
      sizePatience);
  if (exact != AXError::failure) return exact;
  return action.await(
      [&](const X11Window& now) {
        const bool changed = now.client.w != old.w || now.client.h != old.h;
        return changed && approaches(old.w, now.client.w, clientWidth) &&
               approaches(old.h, now.client.h, clientHeight);
      },
      patience - sizePatience);
}

AXError X11WindowSystem::minimize(std::uint32_t window) {
  const auto x11 = sessions_.borrow(Clock::now() + serverPatience);
  if (!x11) return AXError::failure;
  X11WindowAction action(*x11, window);
  if (!action.read()) return action.error();
  if (!action.managed() || !action.allows(XAtom::netWmActionMinimize))
    return AXError::attributeUnsupported;
  action.ask(XAtom::wmChangeState, {iconicState, 0, 0, 0, 0});
  return action.await([](const X11Window& now) { return now.hidden; }, patience);
}

AXError X11WindowSystem::toggleFullScreen(std::uint32_t window) {
  const auto x11 = sessions_.borrow(Clock::now() + serverPatience);
  if (!x11) return AXError::failure;
  X11WindowAction action(*x11, window);
  const auto before = action.read();
  if (!before) return action.error();
  const bool wanted = !before->fullScreen;
  if (!action.managed() || (wanted && !action.allows(XAtom::netWmActionFullScreen)))
    return AXError::attributeUnsupported;
  action.askState(wanted, XAtom::netWmStateFullScreen, XAtom::netWmStateFullScreen);
  return action.await([wanted](const X11Window& now) { return now.fullScreen == wanted; },
                      patience);
}

}  // namespace vesko
