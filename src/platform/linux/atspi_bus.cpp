#include "platform/linux/atspi_bus.h"

#include <string>
#include <system_error>
#include <utility>

#include "platform/linux/dbus_address.h"

namespace vesko {
namespace {

using Clock = AtspiBus::Clock;

constexpr std::string_view properties = "org.freedesktop.DBus.Properties";
constexpr std::string_view busService = "org.a11y.Bus";
constexpr std::string_view busPath = "/org/a11y/bus";
constexpr std::string_view status = "org.a11y.Status";
constexpr std::string_view enabled = "IsEnabled";

struct Found {
  std::string address;
  bool justEnabled = false;
};

// Asked of the session bus, which starts the accessibility bus when it does not run. Applications
// look at IsEnabled: some toolkits tell of their elements only while it is true.
Found findBus(Clock::time_point deadline) {
  Found found;
  const auto session = DBusConnection::open(sessionBusAddress(), deadline);
  if (!session) return found;
  const auto service = session->peer(busService);
  bool isEnabled = true;
  session->call(service, busPath, busService, "GetAddress", {}, [&](const DBusReply& reply) {
    DBusReader body = reply.body;
    if (reply.is("s")) found.address = body.text();
  });
  session->call(service, busPath, properties, "Get", DBusArguments().add(status).add(enabled),
                [&](const DBusReply& reply) {
                  DBusReader body = reply.body;
                  if (reply.is("v") && body.signature() == "b") isEnabled = body.boolean();
                });
  session->run(deadline);
  if (found.address.empty() || isEnabled) return found;
  session->call(service, busPath, properties, "Set",
                DBusArguments().add(status).add(enabled).addVariant(true),
                [&](const DBusReply& reply) {
                  found.justEnabled = reply.outcome == DBusReply::Outcome::value;
                });
  session->run(deadline);
  return found;
}

// One toolkit lists its elements only for those who registered for some event; of this one nothing
// ever tells. The registry forgets it with the connection.
void registerForLists(DBusConnection& bus, Clock::time_point deadline) {
  bus.call(bus.peer(atspi::registry), "/org/a11y/atspi/registry", atspi::registry, "RegisterEvent",
           DBusArguments()
               .add(std::string_view("object:vesko-companion"))
               .addEmptyTexts()
               .add(std::string_view()),
           [](const DBusReply&) {});
  bus.run(deadline);
}

}  // namespace

AtspiBus::AtspiBus(std::chrono::milliseconds keepFor) : kept_(keepFor) {}

AtspiConnection AtspiBus::acquire(Clock::time_point deadline) {
  AtspiConnection connection{.bus = kept_.take()};
  if (connection.bus && !connection.bus->closedByBus()) return connection;
  const Found found = findBus(deadline);
  connection.justEnabled = found.justEnabled;
  connection.bus = DBusConnection::open(found.address, deadline);
  if (connection.bus) registerForLists(*connection.bus, deadline);
  return connection;
}

void AtspiBus::takeBack(std::unique_ptr<DBusConnection> bus) {
  if (!bus->reusable()) return;
  bus->forget();
  kept_.giveBack(std::move(bus));
}

}  // namespace vesko
