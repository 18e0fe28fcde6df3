// The web pages that an application shows, where its views do not name them as their children.
//
// WebKitGTK shows each page from a process of its own, a child of the application's, which lists
// its pages on the accessibility bus under a name that begins with "org.webkit.".
#pragma once

#include <optional>

#include "platform/linux/atspi_context.h"

namespace vesko {

/// The root of the page that `view` shows, now its child; nothing when there is none or several
/// could be it.
std::optional<AXElement> pageInView(AtspiContext& context, AXElement view);

}  // namespace vesko
