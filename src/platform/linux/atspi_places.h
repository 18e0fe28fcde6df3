// Where elements are seen on the screen.
//
// Toolkits answer in different coordinates, and some answer also for what is closed, scrolled away
// or on a page that is not shown. There the ancestors tell: they are asked along.
#pragma once

#include <optional>

#include "platform/linux/atspi_context.h"

namespace vesko {

/// For one call of AccessibilitySession::read().
class AtspiPlaces {
 public:
  explicit AtspiPlaces(AtspiContext& context) : context_(context) {}

  /// Asks where the element is; `facts` are its present ones.
  void ask(AXElement element, const AtspiFacts& facts);
  /// When everything was answered: in screen points; an empty rectangle off every screen when it is
  /// not seen, nothing when it has no place.
  std::optional<Rect> frame(AXElement element);

 private:
  void askAncestors(AXElement element);
  void askExtents(AXElement element);
  void resolve(AXElement element, int depth);
  void placeInWindow(AXElement element, AtspiPlace& place);
  AtspiContext& context_;
};

/// The X window in which an element lies; null when none can be told.
const X11Window* windowOf(AtspiContext& context, AXElement element);

/// Looked up once a session.
const AtspiWindows::OfProcess& windowsOf(AtspiContext& context, std::uint32_t application);

}  // namespace vesko
