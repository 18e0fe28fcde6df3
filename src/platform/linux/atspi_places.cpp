#include "platform/linux/atspi_places.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <string>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace vesko {
namespace {

// Where nothing of an element is seen: touches no screen, as those begin at the origin, and is near
// nothing that is seen.
constexpr Rect unseen{-32000, -32000, 0, 0};
// No interface nests so deep; a circle of a faulty one ends here.
constexpr int maxDepth = 256;

bool overlap(const Rect& a, const Rect& b) {
  return a.x < b.x + b.w && b.x < a.x + a.w && a.y < b.y + b.h && b.y < a.y + a.h;
}

Rect intersection(const Rect& a, const Rect& b) {
  const double x = std::max(a.x, b.x);
  const double y = std::max(a.y, b.y);
  return {x, y, std::max(std::min(a.x + a.w, b.x + b.w) - x, 0.0),
          std::max(std::min(a.y + a.h, b.y + b.h) - y, 0.0)};
}

}  // namespace

void AtspiPlaces::ask(AXElement element, const AtspiFacts& facts) {
  AtspiObject& object = context_.objects.object(element);
  const AtspiToolkit toolkit = context_.objects.application(object.application).toolkit;
  object.place = {.asked = true};
  if (atspiIsRoot(facts.role) || !facts.interfaces.component) return;
  // The root of a page has no states of its own.
  object.place.hidden = !object.isPage && saysHidden(toolkit, facts.role, facts.states);
  if (!ownFramesSuffice(toolkit)) askAncestors(element);
  if (!object.place.hidden) askExtents(element);
}

void AtspiPlaces::askExtents(AXElement element) {
  const AtspiToolkit toolkit = context_.objects.applicationOf(element).toolkit;
  const std::uint32_t coordinates = extentsInWindow(toolkit) ? 1 : 0;
  context_.ask(element, atspi::component, "GetExtents", DBusArguments().add(coordinates),
               [this, element](const DBusReply& reply) {
                 if (!context_.got(reply) || !reply.is("(iiii)")) return;
                 DBusReader body = reply.body;
                 const int x = body.int32();
                 const int y = body.int32();
                 const int width = body.int32();
                 const int height = body.int32();
                 AtspiPlace& place = context_.objects.object(element).place;
                 if (!body.ok()) return;
                 if (x == INT_MIN || y == INT_MIN)
                   place.hidden = true;
                 else
                   place.told = {double(x), double(y), double(width), double(height)};
               });
}

void AtspiPlaces::askAncestors(AXElement element) {
  for (int depth = 0; depth < maxDepth; ++depth) {
    const AXElement parent = context_.objects.object(element).parent;
    AtspiObject& object = context_.objects.object(parent);
    if (parent == element || object.place.asked) return;
    object.place = {.asked = true};
    element = parent;
    if (object.path == atspi::rootPath) return;
    if (object.role == atspiRole::invalid)
      context_.ask(parent, atspi::accessible, "GetRole", {},
                   [this, parent](const DBusReply& reply) {
                     if (context_.got(reply) && reply.is("u"))
                       context_.objects.object(parent).role = DBusReader(reply.body).uint32();
                   });
    context_.ask(parent, atspi::accessible, "GetState", {}, [this, parent](const DBusReply& reply) {
      const auto states = statesIn(reply);
      if (!context_.got(reply) || !states) return;
      const AtspiToolkit toolkit = context_.objects.applicationOf(parent).toolkit;
      AtspiObject& ancestor = context_.objects.object(parent);
      if (!ancestor.isPage && saysHidden(toolkit, ancestor.role, *states))
        ancestor.place.hidden = true;
    });
    askExtents(parent);
  }
}

std::optional<Rect> AtspiPlaces::frame(AXElement element) {
  resolve(element, 0);
  return context_.objects.object(element).place.frame;
}

void AtspiPlaces::resolve(AXElement element, int depth) {
  AtspiObject& object = context_.objects.object(element);
  AtspiPlace& place = object.place;
  if (place.resolved) return;
  place.resolved = true;
  const AtspiToolkit toolkit = context_.objects.application(object.application).toolkit;
  if (!ownFramesSuffice(toolkit) && object.parent != element && depth < maxDepth) {
    resolve(object.parent, depth + 1);
    const AtspiPlace& parent = context_.objects.object(object.parent).place;
    place.origin = parent.origin;
    place.popup = parent.popup;
    // What it holds is hidden with it, whatever that says of itself.
    place.hidden = place.hidden || parent.hidden;
    if (!atspiPopsUp(object.role)) place.seenIn = parent.seenIn;
    if (object.isPage && parent.frame) {
      place.origin = {parent.frame->x, parent.frame->y};
      place.seenIn = place.seenIn ? intersection(*parent.frame, *place.seenIn) : *parent.frame;
    }
  }
  if (!place.hidden && !place.told) return;
  if (place.hidden || place.told->w <= 0 || place.told->h <= 0) {
    if (!mayHideBeforeItsContent(toolkit, object.role)) place.frame = unseen;
    if (clipsChildren(toolkit, object.role)) place.seenIn = unseen;
    return;
  }
  if (extentsInWindow(toolkit)) placeInWindow(element, place);
  Rect frame = *place.told;
  frame.x += place.origin.x;
  frame.y += place.origin.y;
  place.frame = !place.seenIn || overlap(frame, *place.seenIn) ? frame : unseen;
  if (clipsChildren(toolkit, object.role) && !atspiPopsUp(object.role))
    place.seenIn = place.seenIn ? intersection(frame, *place.seenIn) : frame;
  // What it told is where its content lies.
  if (!atspiIsWindow(object.role) || tellsWindowFrames(toolkit)) return;
  const X11Window* window = windowOf(context_, element);
  if (window && (extentsInWindow(toolkit) || frame == window->client)) place.frame = window->frame;
}

void AtspiPlaces::placeInWindow(AXElement element, AtspiPlace& place) {
  const AtspiObject& object = context_.objects.object(element);
  const Rect& told = *place.told;
  if (atspiIsWindow(object.role)) {
    if (const X11Window* window = windowOf(context_, element))
      place.origin = contentOrigin(*window, told.w, told.h);
    return;
  }
  // What stands for a popover has its size, but tells a position as if it lay at its parent's.
  for (const X11Window& popup : windowsOf(context_, object.application).popups) {
    const double width = popup.client.w - popup.shadowLeft - popup.shadowRight;
    const double height = popup.client.h - popup.shadowTop - popup.shadowBottom;
    if (place.popup == popup.id || width != told.w || height != told.h) continue;
    place.popup = popup.id;
    place.origin = {popup.client.x + popup.shadowLeft - told.x,
                    popup.client.y + popup.shadowTop - told.y};
    place.seenIn.reset();
    return;
  }
}

const AtspiWindows::OfProcess& windowsOf(AtspiContext& context, std::uint32_t number) {
  AtspiApplication& application = context.objects.application(number);
  if (!application.windows) application.windows = context.windows.windowsOf(application.process);
  return *application.windows;
}

namespace {

struct ToldWindow {
  AXElement element = 0;
  std::string title = {};
  std::optional<Rect> told = {};
  bool shows = false;
};

std::vector<ToldWindow> toldWindows(AtspiContext& context, std::uint32_t number, AXElement root) {
  constexpr std::size_t maxWindows = 256;
  std::vector<ToldWindow> windows;
  context.ask(root, atspi::accessible, "GetChildren", {}, [&](const DBusReply& reply) {
    if (!context.got(reply) || !reply.is("a(so)")) return;
    DBusReader body = reply.body;
    DBusReader list = body.array(8);
    while (list.more() && windows.size() < maxWindows) {
      list.structure();
      const std::string_view bus = list.text();
      const std::string_view path = list.text();
      if (!list.ok() || bus != context.objects.application(number).busName) continue;
      if (const auto window = context.objects.element(bus, path, root))
        windows.push_back({.element = *window});
    }
  });
  context.run();
  const std::uint32_t coordinates =
      extentsInWindow(context.objects.application(number).toolkit) ? 1 : 0;
  for (ToldWindow& window : windows) {
    context.askProperty(window.element, atspi::accessible, "Name", [&](const DBusReply& reply) {
      if (const auto name = textProperty(reply)) window.title = *name;
    });
    context.ask(window.element, atspi::accessible, "GetState", {}, [&](const DBusReply& reply) {
      const auto states = statesIn(reply);
      window.shows =
          states && (states->has(AtspiStates::visible) || states->has(AtspiStates::showing));
    });
    context.ask(window.element, atspi::component, "GetExtents", DBusArguments().add(coordinates),
                [&](const DBusReply& reply) {
                  if (!context.got(reply) || !reply.is("(iiii)")) return;
                  DBusReader body = reply.body;
                  const int x = body.int32();
                  const int y = body.int32();
                  const int width = body.int32();
                  window.told = {double(x), double(y), double(width), double(body.int32())};
                });
  }
  context.run();
  return windows;
}

// An application tells of its windows in the order in which it made them, and so are X windows
// numbered: that tells apart what is of the same title, size and, where told, place.
std::unordered_map<AXElement, xcb_window_t> matchWindows(AtspiContext& context,
                                                         std::uint32_t number, AXElement root) {
  struct Pair {
    double difference;
    std::size_t order;
    xcb_window_t window;
    AXElement element;
  };
  const bool placed = !extentsInWindow(context.objects.application(number).toolkit);
  const auto told = toldWindows(context, number, root);
  std::vector<Pair> pairs;
  for (std::size_t i = 0; i < told.size(); ++i) {
    if (!told[i].shows) continue;
    for (const X11Window& window : windowsOf(context, number).windows) {
      constexpr double otherTitle = 1e6;
      double difference = window.title.value_or("") == told[i].title ? 0 : otherTitle;
      const Rect frame = told[i].told.value_or(Rect{});
      difference += std::abs(window.client.w - frame.w) + std::abs(window.client.h - frame.h);
      if (placed)
        difference += std::abs(window.client.x - frame.x) + std::abs(window.client.y - frame.y);
      pairs.push_back({difference, i, window.id, told[i].element});
    }
  }
  std::ranges::sort(pairs, {}, [](const Pair& pair) {
    return std::tuple(pair.difference, pair.order, pair.window);
  });
  std::unordered_map<AXElement, xcb_window_t> matched;
  std::unordered_set<xcb_window_t> taken;
  for (const Pair& pair : pairs) {
    if (matched.contains(pair.element) || taken.contains(pair.window)) continue;
    matched.emplace(pair.element, pair.window);
    taken.insert(pair.window);
  }
  return matched;
}

}  // namespace

const X11Window* windowOf(AtspiContext& context, AXElement element) {
  for (int depth = 0; depth < maxDepth; ++depth) {
    const AtspiObject& object = context.objects.object(element);
    if (object.parent == element) return nullptr;
    if (context.objects.object(object.parent).path == atspi::rootPath) break;
    element = object.parent;
  }
  const std::uint32_t number = context.objects.object(element).application;
  const std::vector<X11Window>& windows = windowsOf(context, number).windows;
  if (windows.empty()) return nullptr;
  if (windows.size() == 1) return &windows.front();
  if (!context.objects.application(number).windowOf) {
    auto matched = matchWindows(context, number, context.objects.object(element).parent);
    context.objects.application(number).windowOf = std::move(matched);
  }
  const auto& matched = *context.objects.application(number).windowOf;
  const auto own = matched.find(element);
  if (own == matched.end()) return nullptr;
  return &*std::ranges::find(windows, own->second, &X11Window::id);
}

}  // namespace vesko
