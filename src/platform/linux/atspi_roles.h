// What the elements of AT-SPI are in the terms of the Mac's accessibility interface.
//
// Numbers of roles and bits of states as in AtspiRole and AtspiStateType of
// https://gnome.pages.gitlab.gnome.org/at-spi2-core/libatspi/. Any thread.
#pragma once

#include <cstdint>
#include <string_view>

namespace vesko {

namespace atspiRole {
inline constexpr std::uint32_t invalid = 0, alert = 2, columnHeader = 10, comboBox = 11,
                               desktopFrame = 14, dialog = 16, frame = 23, icon = 26, label = 29,
                               list = 31, listItem = 32, menu = 33, menuBar = 34, menuItem = 35,
                               pageTab = 37, pageTabList = 38, panel = 39, passwordText = 40,
                               popupMenu = 41, pushButton = 43, scrollPane = 49, slider = 51,
                               table = 55, tableCell = 56, tableColumnHeader = 57,
                               tableRowHeader = 58, text = 61, toggleButton = 62, tree = 65,
                               treeTable = 66, viewport = 68, window = 69, application = 75,
                               entry = 79, documentFrame = 82, documentWeb = 95, listBox = 98,
                               staticText = 116;
}  // namespace atspiRole

/// The set of states of an element, two words of bits.
class AtspiStates {
 public:
  enum State : unsigned {
    active = 1,
    checked = 4,
    defunct = 6,
    editable = 7,
    expanded = 10,
    focused = 12,
    iconified = 15,
    multiLine = 17,
    pressed = 20,
    selectable = 22,
    selected = 23,
    sensitive = 24,
    showing = 25,
    visible = 30,
    managesDescendants = 31,
  };
  AtspiStates() = default;
  explicit AtspiStates(std::uint64_t bits) : bits_(bits) {}
  bool has(State state) const { return (bits_ >> state & 1) != 0; }

 private:
  std::uint64_t bits_ = 0;
};

/// Where the value of an element comes from.
enum class AtspiValue {
  none,
  name,      ///< its text is its name
  text,      ///< the interface Text
  secret,    ///< likewise, but nobody reads it: as many bullets
  number,    ///< the interface Value
  checked,   ///< "1" when it is checked or pressed, else "0"
  selected,  ///< "1" when it is selected, else "0"
  choice,    ///< the name of what is selected in it
};

struct AtspiKind {
  std::string_view role;     ///< as "AXButton"
  std::string_view subrole;  ///< empty for none
  AtspiValue value = AtspiValue::none;
};

/// `parentRole` is that of the parent, atspiRole::invalid where it is not known; `web` says that
/// the element is part of a web page.
AtspiKind atspiKind(std::uint32_t role, AtspiStates states, std::uint32_t parentRole, bool web);

/// Elements with children by the row, which may be thousands.
bool atspiHoldsRows(std::uint32_t role);
/// Stands for a whole application or for the desktop, and has neither state nor place.
bool atspiIsRoot(std::uint32_t role);
bool atspiIsWindow(std::uint32_t role);
/// A window that is no menu or popover.
bool atspiHasTitleBar(std::uint32_t role);
/// Shows in a window of its own, wherever its parent lies.
bool atspiPopsUp(std::uint32_t role);
/// Shows a part of something larger.
bool atspiScrolls(std::uint32_t role);

}  // namespace vesko
