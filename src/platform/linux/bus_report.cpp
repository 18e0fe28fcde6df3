#include "platform/linux/bus_report.h"

#include "platform/linux/dbus_address.h"

namespace vesko {
namespace {

using Clock = DBusConnection::Clock;

struct Target {
  std::string_view service;
  std::string_view path;
  std::string_view interface;
};

constexpr Target busItself{"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus"};
constexpr Target launcher{"org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus"};
constexpr Target registry{"org.a11y.atspi.Registry", "/org/a11y/atspi/accessible/root",
                          "org.a11y.atspi.Accessible"};
constexpr Target secrets{"org.freedesktop.secrets", "/org/freedesktop/secrets",
                         "org.freedesktop.Secret.Service"};

/// The answer's body, for `read` to take a value of type `signature` from; false without one.
template <class Read>
bool ask(DBusConnection& bus, Clock::time_point deadline, const Target& target,
         std::string_view member, const DBusArguments& arguments, std::string_view signature,
         Read read) {
  bool answered = false;
  bus.call(bus.peer(target.service), target.path, target.interface, member, arguments,
           [&](const DBusReply& reply) {
             if (!reply.is(signature)) return;
             DBusReader body = reply.body;
             answered = read(body) && body.ok();
           });
  bus.run(deadline);
  return answered;
}

template <class Read>
bool property(DBusConnection& bus, Clock::time_point deadline, const Target& target,
              std::string_view name, std::string_view signature, Read read) {
  return ask(bus, deadline, {target.service, target.path, "org.freedesktop.DBus.Properties"}, "Get",
             DBusArguments().add(target.interface).add(name), "v", [&](DBusReader& body) {
               if (body.signature() != signature) return false;
               read(body);
               return true;
             });
}

bool hasOwner(DBusConnection& bus, Clock::time_point deadline, std::string_view name) {
  bool owned = false;
  ask(bus, deadline, busItself, "NameHasOwner", DBusArguments().add(name), "b",
      [&](DBusReader& body) {
        owned = body.boolean();
        return true;
      });
  return owned;
}

bool isStartable(DBusConnection& bus, Clock::time_point deadline, std::string_view name) {
  bool startable = false;
  ask(bus, deadline, busItself, "ListActivatableNames", {}, "as", [&](DBusReader& body) {
    for (DBusReader names = body.array(4); names.more();) startable |= names.text() == name;
    return true;
  });
  return startable;
}

}  // namespace

std::optional<SessionBus> SessionBus::connect(Clock::time_point deadline) {
  auto bus = DBusConnection::open(sessionBusAddress(), deadline);
  if (!bus) return std::nullopt;
  return SessionBus(std::move(bus), deadline);
}

// Calls to a name that nobody owns would start its service.
ServiceState SessionBus::stateOf(std::string_view name) {
  if (hasOwner(*bus_, deadline_, name)) return ServiceState::running;
  return isStartable(*bus_, deadline_, name) ? ServiceState::startable : ServiceState::absent;
}

AccessibilityReport SessionBus::accessibility() {
  AccessibilityReport report{.launcher = stateOf(launcher.service)};
  if (report.launcher != ServiceState::running) return report;
  std::string address;
  ask(*bus_, deadline_, launcher, "GetAddress", {}, "s", [&](DBusReader& body) {
    address = body.text();
    return true;
  });
  property(*bus_, deadline_, {launcher.service, launcher.path, "org.a11y.Status"}, "IsEnabled", "b",
           [&](DBusReader& body) { report.enabled = body.boolean(); });
  const auto bus = address.empty() ? nullptr : DBusConnection::open(address, deadline_);
  if (!bus) return report;
  report.answers = true;
  if (hasOwner(*bus, deadline_, registry.service))
    report.answers = property(*bus, deadline_, registry, "ChildCount", "i",
                              [&](DBusReader& body) { report.applications = body.int32(); });
  return report;
}

KeyringReport SessionBus::keyring() {
  KeyringReport report{.service = stateOf(secrets.service)};
  if (report.service != ServiceState::running) return report;
  std::string collection;
  report.answers =
      ask(*bus_, deadline_, secrets, "ReadAlias", DBusArguments().add(std::string_view("default")),
          "o", [&](DBusReader& body) {
            collection = body.text();
            return true;
          });
  // "/" stands for none.
  report.hasCollection =
      collection.size() > 1 &&
      property(*bus_, deadline_, {secrets.service, collection, "org.freedesktop.Secret.Collection"},
               "Locked", "b", [&](DBusReader& body) { report.locked = body.boolean(); });
  return report;
}

}  // namespace vesko
