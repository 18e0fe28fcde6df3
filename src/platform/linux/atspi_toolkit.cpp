#include "platform/linux/atspi_toolkit.h"

namespace vesko {

AtspiToolkit atspiToolkit(std::string_view name, std::string_view version) {
  if (name == "GTK" || (name == "gtk" && version.starts_with("4"))) return AtspiToolkit::gtk4;
  if (name == "gtk") return AtspiToolkit::gtk3;
  if (name == "Qt") return AtspiToolkit::qt;
  if (name == "WebKitGTK" || name == "WebKitGtk") return AtspiToolkit::webkit;
  return AtspiToolkit::unknown;
}

bool listsElements(AtspiToolkit toolkit) {
  return toolkit == AtspiToolkit::gtk3 || toolkit == AtspiToolkit::gtk4;
}

bool listsVisitedElementsOnly(AtspiToolkit toolkit) {
  return toolkit == AtspiToolkit::gtk4;
}

bool saysHidden(AtspiToolkit toolkit, std::uint32_t role, AtspiStates states) {
  if (states.has(AtspiStates::iconified)) return true;
  if (toolkit == AtspiToolkit::gtk4) return !states.has(AtspiStates::visible);
  // The scrolled part of a page never says that it shows.
  if (toolkit == AtspiToolkit::webkit && role == atspiRole::scrollPane) return false;
  return !states.has(AtspiStates::showing);
}

bool extentsInWindow(AtspiToolkit toolkit) {
  return toolkit == AtspiToolkit::gtk4;
}

bool tellsWindowFrames(AtspiToolkit toolkit) {
  return toolkit == AtspiToolkit::gtk3;
}

bool ownFramesSuffice(AtspiToolkit toolkit) {
  return toolkit == AtspiToolkit::gtk3 || toolkit == AtspiToolkit::unknown;
}

bool clipsChildren(AtspiToolkit toolkit, std::uint32_t role) {
  // A widget of Qt never draws outside its parent.
  return toolkit == AtspiToolkit::qt || atspiScrolls(role);
}

bool mayHideBeforeItsContent(AtspiToolkit toolkit, std::uint32_t role) {
  return toolkit == AtspiToolkit::gtk3 && role == atspiRole::pageTab;
}

bool namesChoice(AtspiToolkit toolkit) {
  return toolkit == AtspiToolkit::qt;
}

bool showsLabelInside(AtspiToolkit toolkit, std::uint32_t role) {
  return toolkit == AtspiToolkit::gtk4 &&
         (role == atspiRole::pageTab || role == atspiRole::comboBox);
}

bool choosesClosed(AtspiToolkit toolkit) {
  return toolkit != AtspiToolkit::gtk4 && toolkit != AtspiToolkit::qt;
}

bool tellsSelectedTabByFocus(AtspiToolkit toolkit) {
  return toolkit == AtspiToolkit::qt;
}

bool mayShowPage(AtspiToolkit toolkit, std::string_view name) {
  return toolkit == AtspiToolkit::gtk4 && name.ends_with("WebView") &&
         name.find(' ') == std::string_view::npos;
}

bool textAnywhere(AtspiToolkit toolkit) {
  return toolkit == AtspiToolkit::webkit;
}

bool isLeaf(AtspiToolkit toolkit, std::uint32_t role) {
  // What is no widget there.
  if (toolkit != AtspiToolkit::qt) return false;
  return role == atspiRole::tableCell || role == atspiRole::pageTab ||
         role == atspiRole::listItem || role == atspiRole::tableColumnHeader ||
         role == atspiRole::tableRowHeader;
}

bool isClassName(AtspiToolkit toolkit, std::string_view name) {
  if (mayShowPage(toolkit, name)) return true;
  return toolkit == AtspiToolkit::gtk4 && (name.starts_with("Gtk") || name.starts_with("Adw")) &&
         name.size() > 3 && name[3] >= 'A' && name[3] <= 'Z' &&
         name.find(' ') == std::string_view::npos;
}

bool grabsFocus(AtspiToolkit toolkit) {
  return toolkit != AtspiToolkit::gtk4;
}

}  // namespace vesko
