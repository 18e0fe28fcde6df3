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
/// Whether an element says that nothing of it is seen. What it does not say is no sign of the
/// contrary.
bool saysHidden(AtspiToolkit toolkit, std::uint32_t role, AtspiStates states);
/// Whether extents are told relative to the window and not to the screen.
bool extentsInWindow(AtspiToolkit toolkit);
/// Whether a window tells its place with the decorations of its manager.
bool tellsWindowFrames(AtspiToolkit toolkit);
/// Whether each element tells correctly whether and where it is seen. Where not, its ancestors have
/// a say.
bool ownFramesSuffice(AtspiToolkit toolkit);
/// Whether nothing of the children shows outside an element of that role.
bool clipsChildren(AtspiToolkit toolkit, std::uint32_t role);

/// What holds the page of a tab in a notebook: hidden with the bar of tabs, also when its page
/// shows.
bool mayHideBeforeItsContent(AtspiToolkit toolkit, std::uint32_t role);
/// Whether a box of choices is named by what is chosen.
bool namesChoice(AtspiToolkit toolkit);
/// Whether elements of that role are told apart only by the text that they show, a label inside
/// them: a tab is named by it, and a box of choices has it as its value.
bool showsLabelInside(AtspiToolkit toolkit, std::uint32_t role);
/// Whether a choice can be made in a box of choices that is closed. Elsewhere the choices are not
/// there then, or say that they were made without being so.
bool choosesClosed(AtspiToolkit toolkit);
/// Whether the tab whose page shows says that it has the focus, and not that it is selected.
bool tellsSelectedTabByFocus(AtspiToolkit toolkit);
/// Whether an element without children, of that name, shows a web page that has to be looked for.
/// GTK 4 names views without a title by their class; before 4.14 it cannot point to another
/// process.
bool mayShowPage(AtspiToolkit toolkit, std::string_view name);
/// Whether text stands in elements of any role, and not in labels of its own.
bool textAnywhere(AtspiToolkit toolkit);
/// Whether elements of that role never have children.
bool isLeaf(AtspiToolkit toolkit, std::uint32_t role);
/// A name that is no name: the class of a widget that was given none.
bool isClassName(AtspiToolkit toolkit, std::string_view name);
/// Whether the keyboard focus can be moved through Component.GrabFocus.
bool grabsFocus(AtspiToolkit toolkit);

}  // namespace vesko
