// What the parts of a session share: its connection, its elements and how far it may go. One
// thread.
#pragma once

#include <chrono>
#include <memory>
#include <string_view>
#include <utility>

#include "platform/linux/atspi_bus.h"
#include "platform/linux/atspi_objects.h"

namespace vesko {

/// Interfaces and methods on the accessibility bus.
namespace atspi {
inline constexpr std::string_view accessible = "org.a11y.atspi.Accessible";
inline constexpr std::string_view component = "org.a11y.atspi.Component";
inline constexpr std::string_view selection = "org.a11y.atspi.Selection";
inline constexpr std::string_view valueInterface = "org.a11y.atspi.Value";
inline constexpr std::string_view textInterface = "org.a11y.atspi.Text";
inline constexpr std::string_view properties = "org.freedesktop.DBus.Properties";
}  // namespace atspi

struct AtspiContext {
  using Clock = DBusConnection::Clock;

  DBusConnection* bus = nullptr;  ///< null when there is none
  Clock::time_point deadline;
  AtspiObjects objects;
  AtspiWindows windows;
  bool incomplete = false;

  void run() { bus->run(deadline); }

  /// False when it is no value; what the session misses by that is noted.
  bool got(const DBusReply& reply);

  void ask(AXElement element, std::string_view interface, std::string_view member,
           const DBusArguments& arguments, DBusConnection::Handler handler) {
    const AtspiObject& object = objects.object(element);
    bus->call(objects.application(object.application).peer, object.path, interface, member,
              arguments, std::move(handler));
  }
  void askProperty(AXElement element, std::string_view interface, std::string_view property,
                   DBusConnection::Handler handler) {
    ask(element, atspi::properties, "Get", DBusArguments().add(interface).add(property),
        std::move(handler));
  }
};

/// What a reply says of the element that was asked.
AXError atspiError(const DBusReply& reply);

/// The text or number in a reply to askProperty(); nothing when it holds another type.
std::optional<std::string_view> textProperty(const DBusReply& reply);
std::optional<double> numberProperty(const DBusReply& reply);
std::optional<std::int32_t> countProperty(const DBusReply& reply);
/// The states in a reply to GetState.
std::optional<AtspiStates> statesIn(const DBusReply& reply);

/// Asks applications that are new to the session what they are.
void learnToolkits(AtspiContext& context, std::span<const AXElement> elements);

}  // namespace vesko
