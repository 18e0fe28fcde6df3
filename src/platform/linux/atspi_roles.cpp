#include "platform/linux/atspi_roles.h"

#include <array>

namespace vesko {
namespace {

using enum AtspiValue;

// By the number of the role.
constexpr std::array<AtspiKind, 130> kinds{{
    {"AXUnknown", "", none},                            // invalid
    {"AXStaticText", "", name},                         // accelerator label
    {"AXWindow", "AXDialog", none},                     // alert
    {"AXImage", "", none},                              // animation
    {"AXImage", "", none},                              // arrow
    {"AXGroup", "", none},                              // calendar
    {"AXGroup", "", none},                              // canvas
    {"AXCheckBox", "", checked},                        // check box
    {"AXMenuItem", "", checked},                        // check menu item
    {"AXColorWell", "", none},                          // color chooser
    {"AXButton", "AXSortButton", none},                 // column header
    {"AXPopUpButton", "", choice},                      // combo box
    {"AXDateTimeArea", "", text},                       // date editor
    {"AXImage", "", none},                              // desktop icon
    {"AXSystemWide", "", none},                         // desktop frame
    {"AXSlider", "", number},                           // dial
    {"AXWindow", "AXDialog", none},                     // dialog
    {"AXGroup", "", none},                              // directory pane
    {"AXGroup", "", none},                              // drawing area
    {"AXGroup", "", none},                              // file chooser
    {"AXGroup", "", none},                              // filler
    {"AXGroup", "", none},                              // focus traversable
    {"AXGroup", "", none},                              // font chooser
    {"AXWindow", "AXStandardWindow", none},             // frame
    {"AXGroup", "", none},                              // glass pane
    {"AXWebArea", "", none},                            // html container
    {"AXImage", "", none},                              // icon
    {"AXImage", "", none},                              // image
    {"AXGroup", "", none},                              // internal frame
    {"AXStaticText", "", name},                         // label
    {"AXGroup", "", none},                              // layered pane
    {"AXList", "", none},                               // list
    {"AXRow", "AXTableRow", none},                      // list item
    {"AXMenu", "", none},                               // menu
    {"AXMenuBar", "", none},                            // menu bar
    {"AXMenuItem", "", none},                           // menu item
    {"AXGroup", "", none},                              // option pane
    {"AXRadioButton", "AXTabButton", selected},         // page tab
    {"AXTabGroup", "", none},                           // page tab list
    {"AXGroup", "", none},                              // panel
    {"AXTextField", "AXSecureTextField", secret},       // password text
    {"AXMenu", "", none},                               // popup menu
    {"AXProgressIndicator", "", number},                // progress bar
    {"AXButton", "", none},                             // push button
    {"AXRadioButton", "", checked},                     // radio button
    {"AXMenuItem", "", checked},                        // radio menu item
    {"AXGroup", "", none},                              // root pane
    {"AXCell", "", none},                               // row header
    {"AXScrollBar", "", number},                        // scroll bar
    {"AXScrollArea", "", none},                         // scroll pane
    {"AXSplitter", "", none},                           // separator
    {"AXSlider", "", number},                           // slider
    {"AXIncrementor", "", number},                      // spin button
    {"AXSplitGroup", "", none},                         // split pane
    {"AXGroup", "", none},                              // status bar
    {"AXTable", "", none},                              // table
    {"AXCell", "", name},                               // table cell
    {"AXButton", "AXSortButton", none},                 // table column header
    {"AXCell", "", none},                               // table row header
    {"AXMenuItem", "", none},                           // tear-off menu item
    {"AXTextArea", "", text},                           // terminal
    {"AXTextField", "", text},                          // text
    {"AXCheckBox", "AXToggle", checked},                // toggle button
    {"AXToolbar", "", none},                            // tool bar
    {"AXHelpTag", "", none},                            // tool tip
    {"AXOutline", "", none},                            // tree
    {"AXOutline", "", none},                            // tree table
    {"AXUnknown", "", none},                            // unknown
    {"AXGroup", "", none},                              // viewport
    {"AXWindow", "AXUnknown", none},                    // window
    {"AXGroup", "", none},                              // extended
    {"AXGroup", "", none},                              // header
    {"AXGroup", "", none},                              // footer
    {"AXGroup", "", none},                              // paragraph
    {"AXRuler", "", none},                              // ruler
    {"AXApplication", "", none},                        // application
    {"AXComboBox", "", text},                           // autocomplete
    {"AXTextField", "", text},                          // edit bar
    {"AXGroup", "", none},                              // embedded
    {"AXTextField", "", text},                          // entry
    {"AXImage", "", none},                              // chart
    {"AXStaticText", "", name},                         // caption
    {"AXWebArea", "", none},                            // document frame
    {"AXHeading", "", none},                            // heading
    {"AXGroup", "", none},                              // page
    {"AXGroup", "", none},                              // section
    {"AXGroup", "", none},                              // redundant object
    {"AXGroup", "", none},                              // form
    {"AXLink", "", none},                               // link
    {"AXWindow", "AXUnknown", none},                    // input method window
    {"AXRow", "AXTableRow", none},                      // table row
    {"AXRow", "AXOutlineRow", none},                    // tree item
    {"AXGroup", "", none},                              // document spreadsheet
    {"AXGroup", "", none},                              // document presentation
    {"AXTextArea", "", text},                           // document text
    {"AXWebArea", "", none},                            // document web
    {"AXGroup", "", none},                              // document email
    {"AXGroup", "", none},                              // comment
    {"AXList", "", none},                               // list box
    {"AXGroup", "", none},                              // grouping
    {"AXGroup", "", none},                              // image map
    {"AXGroup", "AXApplicationStatus", none},           // notification
    {"AXGroup", "", none},                              // info bar
    {"AXLevelIndicator", "", number},                   // level bar
    {"AXGroup", "", none},                              // title bar
    {"AXGroup", "", none},                              // block quote
    {"AXGroup", "AXAudio", none},                       // audio
    {"AXGroup", "AXVideo", none},                       // video
    {"AXGroup", "AXDefinition", none},                  // definition
    {"AXGroup", "AXDocumentArticle", none},             // article
    {"AXGroup", "AXLandmarkRegion", none},              // landmark
    {"AXGroup", "AXApplicationLog", none},              // log
    {"AXGroup", "AXApplicationMarquee", none},          // marquee
    {"AXGroup", "AXDocumentMath", none},                // math
    {"AXLevelIndicator", "AXRatingIndicator", number},  // rating
    {"AXGroup", "AXApplicationTimer", none},            // timer
    {"AXStaticText", "", name},                         // static
    {"AXGroup", "AXMathFraction", none},                // math fraction
    {"AXGroup", "AXMathRoot", none},                    // math root
    {"AXGroup", "AXSubscriptStyleGroup", none},         // subscript
    {"AXGroup", "AXSuperscriptStyleGroup", none},       // superscript
    {"AXList", "AXDescriptionList", none},              // description list
    {"AXGroup", "AXTerm", none},                        // description term
    {"AXGroup", "AXDescription", none},                 // description value
    {"AXGroup", "", none},                              // footnote
    {"AXGroup", "AXDeleteStyleGroup", none},            // content deletion
    {"AXGroup", "AXInsertStyleGroup", none},            // content insertion
    {"AXGroup", "", none},                              // mark
    {"AXGroup", "", none},                              // suggestion
    {"AXMenuButton", "", none},                         // push button menu
}};

}  // namespace

AtspiKind atspiKind(std::uint32_t role, AtspiStates states, std::uint32_t parentRole, bool web) {
  AtspiKind kind = role < kinds.size() ? kinds[role] : kinds[atspiRole::invalid];
  switch (role) {
    case atspiRole::menu:
    case atspiRole::menuItem:
      // Toolkits give the entry of a menu bar the role of the menu that it opens.
      if (parentRole == atspiRole::menuBar) kind = {"AXMenuBarItem", "", none};
      break;
    case atspiRole::text:
    case atspiRole::entry:
      if (states.has(AtspiStates::multiLine)) kind.role = "AXTextArea";
      break;
    case atspiRole::comboBox:
      if (states.has(AtspiStates::editable)) kind = {"AXComboBox", "", text};
      break;
    case atspiRole::alert:
    case atspiRole::dialog:
      if (web)
        kind = {"AXGroup", role == atspiRole::alert ? "AXApplicationAlert" : "AXApplicationDialog",
                none};
      break;
    case atspiRole::listItem:
      if (web) kind = {"AXGroup", "", none};
      break;
    default:
      break;
  }
  return kind;
}

bool atspiHoldsRows(std::uint32_t role) {
  switch (role) {
    case atspiRole::list:
    case atspiRole::listBox:
    case atspiRole::table:
    case atspiRole::tree:
    case atspiRole::treeTable:
      return true;
    default:
      return false;
  }
}

bool atspiIsRoot(std::uint32_t role) {
  return role == atspiRole::application || role == atspiRole::desktopFrame;
}

bool atspiIsWindow(std::uint32_t role) {
  return atspiHasTitleBar(role) || role == atspiRole::window;
}

bool atspiHasTitleBar(std::uint32_t role) {
  return role == atspiRole::frame || role == atspiRole::dialog || role == atspiRole::alert;
}

bool atspiPopsUp(std::uint32_t role) {
  return atspiIsWindow(role) || role == atspiRole::menu || role == atspiRole::menuItem ||
         role == atspiRole::popupMenu || role == atspiRole::comboBox;
}

bool atspiScrolls(std::uint32_t role) {
  return role == atspiRole::scrollPane || role == atspiRole::viewport ||
         role == atspiRole::documentWeb || atspiHoldsRows(role);
}

}  // namespace vesko
