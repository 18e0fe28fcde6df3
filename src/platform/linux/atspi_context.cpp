#include "platform/linux/atspi_context.h"

#include <cmath>
#include <string>

namespace vesko {

AXError atspiError(const DBusReply& reply) {
  switch (reply.outcome) {
    case DBusReply::Outcome::value:
      return AXError::success;
    case DBusReply::Outcome::timedOut:
    case DBusReply::Outcome::disconnected:
      return AXError::cannotComplete;
    case DBusReply::Outcome::error:
      break;
  }
  constexpr std::string_view prefix = "org.freedesktop.DBus.Error.";
  std::string_view name = reply.errorName;
  if (!name.starts_with(prefix)) return AXError::failure;
  name.remove_prefix(prefix.size());
  if (name == "ServiceUnknown" || name == "NameHasNoOwner" || name == "NoReply" ||
      name == "Disconnected" || name == "Timeout" || name == "TimedOut")
    return AXError::cannotComplete;
  // Toolkits tell in either way that there is no such element.
  if (name == "UnknownObject" || name == "UnknownMethod" || name == "UnknownInterface")
    return AXError::invalidElement;
  if (name == "NotSupported") return AXError::attributeUnsupported;
  if (name == "InvalidArgs") return AXError::illegalArgument;
  return AXError::failure;
}

bool AtspiContext::got(const DBusReply& reply) {
  if (reply.outcome == DBusReply::Outcome::value) return true;
  if (atspiError(reply) == AXError::cannotComplete) incomplete = true;
  return false;
}

std::optional<std::string_view> textProperty(const DBusReply& reply) {
  DBusReader body = reply.body;
  if (!reply.is("v") || body.signature() != "s") return std::nullopt;
  const std::string_view text = body.text();
  return body.ok() ? std::optional(text) : std::nullopt;
}

std::optional<double> numberProperty(const DBusReply& reply) {
  DBusReader body = reply.body;
  if (!reply.is("v")) return std::nullopt;
  const std::string_view type = body.signature();
  const double number = type == "d"   ? body.float64()
                        : type == "i" ? static_cast<double>(body.int32())
                        : type == "u" ? static_cast<double>(body.uint32())
                                      : std::nan("");
  return body.ok() && std::isfinite(number) ? std::optional(number) : std::nullopt;
}

std::optional<std::int32_t> countProperty(const DBusReply& reply) {
  DBusReader body = reply.body;
  if (!reply.is("v") || body.signature() != "i") return std::nullopt;
  const std::int32_t count = body.int32();
  return body.ok() ? std::optional(count) : std::nullopt;
}

std::optional<AtspiStates> statesIn(const DBusReply& reply) {
  if (!reply.is("au")) return std::nullopt;
  DBusReader body = reply.body;
  DBusReader words = body.array(4);
  const std::uint64_t low = words.more() ? words.uint32() : 0;
  const std::uint64_t high = words.more() ? words.uint32() : 0;
  return AtspiStates(high << 32 | low);
}

void learnToolkits(AtspiContext& context, std::span<const AXElement> elements) {
  struct Said {
    std::string name, version;
  };
  std::unordered_map<std::uint32_t, Said> said;
  for (const AXElement element : elements) {
    const std::uint32_t number = context.objects.object(element).application;
    AtspiApplication& application = context.objects.application(number);
    if (application.toolkitKnown) continue;
    application.toolkitKnown = true;
    const auto ask = [&](std::string_view property, std::string Said::* member) {
      context.bus->call(
          application.peer, atspi::rootPath, atspi::properties, "Get",
          DBusArguments().add(std::string_view("org.a11y.atspi.Application")).add(property),
          [&said, number, member](const DBusReply& reply) {
            if (const auto text = textProperty(reply)) said[number].*member = *text;
          });
    };
    ask("ToolkitName", &Said::name);
    ask("Version", &Said::version);
    constexpr std::string_view daemon = "org.freedesktop.DBus";
    context.bus->call(context.bus->peer(daemon), "/org/freedesktop/DBus", daemon,
                      "GetConnectionUnixProcessID",
                      DBusArguments().add(std::string_view(application.busName)),
                      [&context, number](const DBusReply& reply) {
                        if (reply.is("u"))
                          context.objects.application(number).process =
                              static_cast<pid_t>(DBusReader(reply.body).uint32());
                      });
  }
  context.run();
  for (const auto& [number, application] : said)
    context.objects.application(number).toolkit =
        atspiToolkit(application.name, application.version);
}

}  // namespace vesko
