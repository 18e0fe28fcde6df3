#include "platform/linux/atspi_actor.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <span>

#include "base/text.h"
#include "base/utf8.h"
#include "platform/linux/atspi_places.h"

namespace vesko {
namespace {

constexpr std::string_view actionInterface = "org.a11y.atspi.Action";
constexpr std::string_view editableInterface = "org.a11y.atspi.EditableText";
constexpr std::size_t maxOptions = 1000;
constexpr std::int32_t maxActions = 32;

/// What the toolkits call an action, in lower case; the first that an element has is taken.
std::span<const std::string_view> namesOf(AXAction action) {
  static constexpr std::array<std::string_view, 9> press{
      "click", "press",  "toggle",    "activate",          "jump",
      "open",  "select", "dodefault", "expand or contract"};
  static constexpr std::array<std::string_view, 2> confirm{"activate", "confirm"};
  static constexpr std::array<std::string_view, 2> cancel{"cancel", "close"};
  static constexpr std::array<std::string_view, 4> showMenu{"showmenu", "menu", "popup",
                                                            "showcontextmenu"};
  static constexpr std::array<std::string_view, 2> increment{"increase", "increment"};
  static constexpr std::array<std::string_view, 2> decrement{"decrease", "decrement"};
  switch (action) {
    case AXAction::press:
      return press;
    case AXAction::confirm:
      return confirm;
    case AXAction::cancel:
      return cancel;
    case AXAction::showMenu:
      return showMenu;
    case AXAction::increment:
      return increment;
    case AXAction::decrement:
      return decrement;
    case AXAction::raise:
      break;
  }
  return {};
}

std::optional<double> number(std::string_view text) {
  text = trim(text);
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value))
    return std::nullopt;
  return value;
}

bool isChecked(AtspiStates states) {
  return states.has(AtspiStates::checked) || states.has(AtspiStates::pressed);
}

}  // namespace

bool AtspiActor::Target::has(std::string_view interface) const {
  return std::ranges::find(interfaces, interface) != interfaces.end();
}

AtspiActor::Target AtspiActor::look(AXElement element) {
  Target target{.element = element};
  if (!context_.bus || !context_.objects.contains(element)) {
    target.error = AXError::invalidElement;
    return target;
  }
  learnToolkits(context_, std::span(&element, 1));
  context_.ask(element, atspi::accessible, "GetRole", {}, [&](const DBusReply& reply) {
    target.error = atspiError(reply);
    if (reply.is("u")) target.role = DBusReader(reply.body).uint32();
  });
  context_.ask(element, atspi::accessible, "GetState", {}, [&](const DBusReply& reply) {
    if (const auto states = statesIn(reply)) target.states = *states;
  });
  askInterfaces(target);
  context_.run();
  // Elements that are gone may still answer so.
  if (target.error == AXError::success && target.states.has(AtspiStates::defunct))
    target.error = AXError::invalidElement;
  return target;
}

void AtspiActor::askInterfaces(Target& target) {
  // Some toolkits complain on their standard error of questions to an interface that is not there.
  context_.ask(target.element, atspi::accessible, "GetInterfaces", {},
               [this, &target](const DBusReply& reply) {
                 if (!reply.is("as")) return;
                 DBusReader body = reply.body;
                 DBusReader names = body.array(4);
                 while (names.more()) target.interfaces.emplace_back(names.text());
                 if (target.has(actionInterface)) askActions(target);
               });
}

void AtspiActor::askActions(Target& target) {
  // One by one: there is a toolkit that never answers GetActions.
  context_.askProperty(
      target.element, actionInterface, "NActions", [this, &target](const DBusReply& reply) {
        const std::int32_t count = std::clamp(countProperty(reply).value_or(0), 0, maxActions);
        target.actions.resize(static_cast<std::size_t>(count));
        for (std::int32_t i = 0; i < count; ++i) {
          context_.ask(target.element, actionInterface, "GetName", DBusArguments().add(i),
                       [&target, i](const DBusReply& named) {
                         if (named.is("s"))
                           target.actions[static_cast<std::size_t>(i)] =
                               lowerAscii(DBusReader(named.body).text());
                       });
        }
      });
}

AXError AtspiActor::ask(AXElement element, std::string_view interface, std::string_view member,
                        const DBusArguments& arguments) {
  AXError result = AXError::cannotComplete;
  context_.ask(element, interface, member, arguments, [&](const DBusReply& reply) {
    result = atspiError(reply);
    if (reply.is("b") && !DBusReader(reply.body).boolean()) result = AXError::failure;
  });
  context_.run();
  return result;
}

AXError AtspiActor::setFocused(AXElement element) {
  const Target target = look(element);
  if (target.error != AXError::success) return target.error;
  if (atspiIsRoot(target.role) || atspiIsWindow(target.role)) return raise(target);
  if (target.states.has(AtspiStates::focused)) return AXError::success;
  if (!target.states.has(AtspiStates::sensitive)) return AXError::failure;
  if (!grabsFocus(context_.objects.applicationOf(element).toolkit))
    return AXError::attributeUnsupported;
  const AXError error = ask(element, atspi::component, "GrabFocus", {});
  // Told of an element that is there: it takes no focus.
  return error == AXError::invalidElement || error == AXError::failure
             ? AXError::attributeUnsupported
             : error;
}

AXError AtspiActor::perform(AXElement element, AXAction action) {
  const Target target = look(element);
  if (target.error != AXError::success) return target.error;
  if (action == AXAction::raise) return raise(target);
  if (!atspiIsRoot(target.role) && !target.states.has(AtspiStates::sensitive))
    return AXError::failure;
  if (const auto index = indexOf(action, target)) return doAction(target, *index);
  // Whoever presses a menu wants to see it.
  const bool isMenu = target.role == atspiRole::menu || target.role == atspiRole::menuItem;
  if (action == AXAction::press && isMenu)
    if (const auto index = indexOf(AXAction::showMenu, target)) return doAction(target, *index);
  if (action == AXAction::press && target.states.has(AtspiStates::selectable))
    return selectInParent(target);
  if (action == AXAction::increment) return step(target, 1);
  if (action == AXAction::decrement) return step(target, -1);
  return AXError::actionUnsupported;
}

std::optional<std::size_t> AtspiActor::indexOf(AXAction action, const Target& target) {
  for (const std::string_view name : namesOf(action)) {
    const auto found = std::ranges::find(target.actions, name);
    if (found != target.actions.end())
      return static_cast<std::size_t>(found - target.actions.begin());
  }
  return std::nullopt;
}

AXError AtspiActor::doAction(const Target& target, std::size_t index) {
  AXError result = AXError::cannotComplete;
  const AtspiObject& object = context_.objects.object(target.element);
  const DBusConnection::Peer peer = context_.objects.application(object.application).peer;
  const std::uint32_t call = context_.bus->call(
      peer, object.path, actionInterface, "DoAction",
      DBusArguments().add(static_cast<std::int32_t>(index)), [&](const DBusReply& reply) {
        result = atspiError(reply);
        if (reply.is("b") && !DBusReader(reply.body).boolean()) result = AXError::failure;
      });
  // Some toolkits answer only once the dialog that the action opened is closed. Applications take
  // messages in order, so when a later question is answered the action was begun.
  context_.bus->call(
      peer, atspi::rootPath, atspi::accessible, "GetRole", {}, [&](const DBusReply& reply) {
        if (reply.outcome == DBusReply::Outcome::value && context_.bus->stopWaiting(call))
          result = AXError::success;
      });
  context_.run();
  return result;
}

AXError AtspiActor::selectInParent(const Target& target) {
  const AXElement parent = context_.objects.object(target.element).parent;
  if (parent == target.element) return AXError::actionUnsupported;
  Target holder{.element = parent};
  askInterfaces(holder);
  std::int32_t index = -1;
  context_.ask(target.element, atspi::accessible, "GetIndexInParent", {},
               [&](const DBusReply& reply) {
                 if (reply.is("i")) index = DBusReader(reply.body).int32();
               });
  context_.run();
  if (index < 0 || !holder.has(atspi::selection)) return AXError::actionUnsupported;
  return ask(parent, atspi::selection, "SelectChild", DBusArguments().add(index));
}

AXError AtspiActor::step(const Target& target, double direction) {
  if (!target.has(atspi::valueInterface)) return AXError::actionUnsupported;
  std::optional<double> current, increment, minimum, maximum;
  for (const auto& [property, to] : {std::pair{std::string_view("CurrentValue"), &current},
                                     {"MinimumIncrement", &increment},
                                     {"MinimumValue", &minimum},
                                     {"MaximumValue", &maximum}}) {
    context_.askProperty(target.element, atspi::valueInterface, property,
                         [to](const DBusReply& reply) { *to = numberProperty(reply); });
  }
  context_.run();
  if (!current) return AXError::actionUnsupported;
  double size = increment.value_or(0);
  if (size <= 0) size = minimum && maximum && *maximum - *minimum < 1.5 ? 0.05 : 1;
  double wanted = *current + direction * size;
  if (minimum && maximum && *minimum < *maximum) wanted = std::clamp(wanted, *minimum, *maximum);
  return setNumber(target, wanted);
}

AXError AtspiActor::setValue(AXElement element, std::string_view value) {
  const Target target = look(element);
  if (target.error != AXError::success) return target.error;
  if (!isValidUtf8(value) || value.find('\0') != std::string_view::npos)
    return AXError::illegalArgument;
  if (atspiIsRoot(target.role)) return AXError::attributeUnsupported;
  if (!target.states.has(AtspiStates::sensitive)) return AXError::failure;
  const AtspiToolkit toolkit = context_.objects.applicationOf(element).toolkit;
  switch (atspiKind(target.role, target.states, atspiRole::invalid, toolkit == AtspiToolkit::webkit)
              .value) {
    case AtspiValue::number:
      return target.has(atspi::valueInterface) ? setNumber(target, value)
                                               : AXError::attributeUnsupported;
    case AtspiValue::checked:
      return setChecked(target, value);
    case AtspiValue::choice:
      return choosesClosed(toolkit) ? choose(target, value) : AXError::attributeUnsupported;
    default:
      return target.has(editableInterface) ? setText(target, value) : AXError::attributeUnsupported;
  }
}

AXError AtspiActor::setText(const Target& target, std::string_view text) {
  if (!target.states.has(AtspiStates::editable)) return AXError::attributeUnsupported;
  return ask(target.element, editableInterface, "SetTextContents", DBusArguments().add(text));
}

AXError AtspiActor::setNumber(const Target& target, std::string_view text) {
  const auto wanted = number(text);
  if (!wanted) return AXError::illegalArgument;
  std::optional<double> minimum, maximum;
  context_.askProperty(target.element, atspi::valueInterface, "MinimumValue",
                       [&](const DBusReply& reply) { minimum = numberProperty(reply); });
  context_.askProperty(target.element, atspi::valueInterface, "MaximumValue",
                       [&](const DBusReply& reply) { maximum = numberProperty(reply); });
  context_.run();
  if (minimum && maximum && *minimum < *maximum && (*wanted < *minimum || *wanted > *maximum))
    return AXError::illegalArgument;
  return setNumber(target, *wanted);
}

AXError AtspiActor::setNumber(const Target& target, double wanted) {
  return ask(target.element, atspi::properties, "Set",
             DBusArguments()
                 .add(atspi::valueInterface)
                 .add(std::string_view("CurrentValue"))
                 .addVariant(wanted));
}

AXError AtspiActor::setChecked(const Target& target, std::string_view text) {
  if (text != "1" && text != "0") return AXError::illegalArgument;
  if (isChecked(target.states) == (text == "1")) return AXError::success;
  return perform(target.element, AXAction::press);
}

AXError AtspiActor::choose(const Target& target, std::string_view text) {
  // The options are the selectable children, of the box or of the menu or list inside it.
  std::vector<AXElement> level{target.element};
  for (int depth = 0; depth < 3 && !level.empty(); ++depth) {
    std::vector<AXElement> options;
    for (const AXElement element : level) {
      context_.ask(element, atspi::accessible, "GetChildren", {},
                   [&, element](const DBusReply& reply) {
                     if (!reply.is("a(so)")) return;
                     DBusReader body = reply.body;
                     DBusReader list = body.array(8);
                     while (list.more() && options.size() < maxOptions) {
                       list.structure();
                       const std::string_view bus = list.text();
                       const std::string_view path = list.text();
                       if (!list.ok() || bus.empty() || path == atspi::nullPath) continue;
                       if (const auto option = context_.objects.element(bus, path, element))
                         options.push_back(*option);
                     }
                   });
    }
    context_.run();
    std::vector<std::string> names(options.size());
    for (std::size_t i = 0; i < options.size(); ++i) {
      context_.askProperty(options[i], atspi::accessible, "Name", [&, i](const DBusReply& reply) {
        if (const auto name = textProperty(reply)) names[i] = *name;
      });
    }
    context_.run();
    const auto found = std::ranges::find(names, text);
    if (found != names.end()) {
      const auto index = static_cast<std::size_t>(found - names.begin());
      if (target.has(atspi::selection))
        return ask(target.element, atspi::selection, "SelectChild",
                   DBusArguments().add(static_cast<std::int32_t>(index)));
      return perform(options[index], AXAction::press);
    }
    level = std::move(options);
  }
  return AXError::illegalArgument;
}

AXError AtspiActor::raise(const Target& target) {
  if (atspiIsRoot(target.role)) {
    // An application comes to the front with the window that is before its others.
    const auto& windows =
        windowsOf(context_, context_.objects.object(target.element).application).windows;
    if (windows.empty()) return AXError::actionUnsupported;
    return context_.windows.activate(windows.back().id) ? AXError::success : AXError::failure;
  }
  const X11Window* found = windowOf(context_, target.element);
  if (!found) return AXError::actionUnsupported;
  return context_.windows.activate(found->id) ? AXError::success : AXError::failure;
}

}  // namespace vesko
