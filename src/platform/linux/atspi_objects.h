// The elements that a session has met, numbered, with what their applications have told of all of
// them at once.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/accessibility.h"
#include "platform/linux/atspi_roles.h"
#include "platform/linux/atspi_toolkit.h"
#include "platform/linux/atspi_windows.h"
#include "platform/linux/dbus_connection.h"

namespace vesko {

/// The interfaces of an element that matter here.
struct AtspiInterfaces {
  bool component = true;
  bool selection = true;
  bool text = true;
  bool value = true;
};

/// What an element is. Most of it comes with the list of all elements where an application keeps
/// one, else each element is asked.
struct AtspiFacts {
  std::uint32_t role = atspiRole::invalid;
  std::string name = {};
  AtspiStates states = {};
  AtspiInterfaces interfaces = {};
};

/// A name on the bus with elements: an application, or the part of one that shows web pages.
struct AtspiApplication {
  std::string busName;
  DBusConnection::Peer peer = 0;
  AtspiToolkit toolkit = AtspiToolkit::unknown;
  bool toolkitKnown = false;
  bool listed = false;  ///< its list of elements was asked for
  pid_t process = 0;
  std::optional<AtspiWindows::OfProcess> windows = {};
  /// Which element stands for which of several windows.
  std::optional<std::unordered_map<AXElement, xcb_window_t>> windowOf = {};
  bool lookedForPages = false;
  std::vector<AXElement> pages = {};  ///< roots of web pages that its views show
};

/// Where an element is, as far as it was asked.
struct AtspiPlace {
  bool asked = false;
  bool hidden = false;
  std::optional<Rect> told = {};  ///< in the toolkit's coordinates
  // What follows from these and the ancestors':
  bool resolved = false;
  Point origin = {};                ///< of those coordinates on the screen
  std::uint32_t popup = 0;          ///< the X window of the popover that it lies in
  std::optional<Rect> seenIn = {};  ///< nothing of it shows outside
  std::optional<Rect> frame = {};
};

struct AtspiObject {
  std::uint32_t application = 0;
  std::string_view path;
  AXElement parent = 0;  ///< through which it was met first; itself for a root
  bool isPage = false;   ///< the root of a web page, as the view that shows it does not name it
  bool hasFacts = false;
  bool hasChildren = false;                 ///< `children` is all of them, in order
  std::uint32_t role = atspiRole::invalid;  ///< as last seen
  AtspiFacts facts;
  std::vector<AXElement> children;
  AtspiPlace place;
};

/// One thread.
class AtspiObjects {
 public:
  /// What applications may make a session remember. Beyond it new elements are not taken in.
  static constexpr std::size_t maxElements = 100'000;
  static constexpr std::size_t maxApplications = 1000;
  static constexpr std::size_t maxTextBytes = 32 << 20;  ///< of paths and listed names

  /// `bus` may be null; nothing can be asked then.
  explicit AtspiObjects(DBusConnection* bus) : bus_(bus) {}

  /// The same number for the same name and path; nothing when a new one would be too many.
  std::optional<AXElement> element(std::string_view busName, std::string_view path,
                                   AXElement parent);
  std::optional<AXElement> root(std::string_view busName);

  AtspiObject& object(AXElement element) { return objects_[element]; }
  AtspiApplication& application(std::uint32_t number) { return applications_[number]; }
  AtspiApplication& applicationOf(AXElement element) {
    return applications_[objects_[element].application];
  }
  bool contains(AXElement element) const { return element < objects_.size(); }
  std::size_t size() const { return objects_.size(); }

  /// The root of a web page of another application on the bus; its parent is known later.
  std::optional<AXElement> page(std::string_view busName, std::string_view path, pid_t process);

  /// Numbers stay; what elements have told of themselves is asked anew.
  void forgetStates();

  /// Takes over an answer to Cache.GetItems of that application.
  void learn(std::uint32_t application, const DBusReply& items);

 private:
  std::optional<std::uint32_t> applicationNamed(std::string_view busName);

  DBusConnection* bus_;
  std::deque<AtspiObject> objects_;
  std::vector<AtspiApplication> applications_;
  std::unordered_map<std::string, std::uint32_t> applicationNumbers_;
  std::unordered_map<std::string, AXElement> numbers_;  ///< by application and path
  std::size_t pathBytes_ = 0;
  std::size_t nameBytes_ = 0;
};

/// At most maxAXValueBytes of a text, whole characters.
std::string boundedText(std::string_view text);

inline constexpr std::string_view atspiItemsType = "a((so)(so)(so)iiassusau)";

}  // namespace vesko
