// How the toolkits differ in what they answer to AT-SPI: all of it is here. Any thread.
//
// Observed on GTK 3.24, GTK 4.8, Qt 5.15 and WebKitGTK 2.50.
#pragma once

#include <string_view>

#include "platform/linux/atspi_roles.h"

namespace vesko {

enum class AtspiToolkit { unknown, gtk3, gtk4, qt, webkit };

AtspiToolkit atspiToolkit(std::string_view name, std::string_view version);

/// Whether Cache.GetItems lists elements: all of them, or (gtk4) those that were visited.
bool listsElements(AtspiToolkit toolkit);
bool listsVisitedElementsOnly(AtspiToolkit toolkit);
/// Whether the state "showing" tells that an element is seen. Where not, "visible" has to do.
bool tellsShowing(AtspiToolkit toolkit);
/// Whether extents are told relative to the window and not to the screen.
bool extentsInWindow(AtspiToolkit toolkit);
/// A name that is no name: the class of a widget that was given none.
bool isClassName(AtspiToolkit toolkit, std::string_view name);
/// Whether the keyboard focus can be moved through Component.GrabFocus.
bool grabsFocus(AtspiToolkit toolkit);

}  // namespace vesko
