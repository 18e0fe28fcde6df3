#include "platform/linux/atspi_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <string>
#include <unordered_map>
#include <utility>

#include "base/utf8.h"

namespace vesko {
namespace {

using namespace axAttributes;

// From so many elements of one application on, asking for the list of all of them is cheaper than
// asking each.
constexpr std::size_t worthListing = 24;
// Elements that are visited so that the application lists them.
constexpr std::size_t maxVisited = 4000;
// The first of a text; each character has a byte at least.
constexpr std::int32_t maxTextCharacters = maxAXValueBytes;

// Where nothing of an element is seen: touches no screen, as those begin at the origin.
constexpr Rect unseen{-1, -1, 0, 0};

bool overlap(const Rect& a, const Rect& b) {
  return a.x < b.x + b.w && b.x < a.x + a.w && a.y < b.y + b.h && b.y < a.y + a.h;
}

Rect intersection(const Rect& a, const Rect& b) {
  const double x = std::max(a.x, b.x);
  const double y = std::max(a.y, b.y);
  return {x, y, std::max(std::min(a.x + a.w, b.x + b.w) - x, 0.0),
          std::max(std::min(a.y + a.h, b.y + b.h) - y, 0.0)};
}

/// What shows in a window of its own, wherever its parent lies.
bool popsUp(std::uint32_t role) {
  return role == atspiRole::menu || role == atspiRole::window || role == atspiRole::comboBox ||
         atspiIsWindow(role);
}

std::optional<std::pair<std::string_view, std::string_view>> reference(DBusReader& reader) {
  const std::string_view bus = reader.text();
  const std::string_view path = reader.text();
  if (!reader.ok() || bus.empty() || path == atspi::nullPath) return std::nullopt;
  return std::pair(bus, path);
}

}  // namespace

bool AtspiReader::got(const DBusReply& reply) {
  if (reply.outcome == DBusReply::Outcome::value) return true;
  if (atspiError(reply) == AXError::cannotComplete) context_.incomplete = true;
  return false;
}

std::vector<AXElementState> AtspiReader::read(std::span<const AXElement> elements) {
  std::vector<Item> items(elements.size());
  std::vector<AXElement> known;
  for (std::size_t i = 0; i < elements.size(); ++i) {
    items[i].element = elements[i];
    if (context_.bus && context_.objects.contains(elements[i]))
      known.push_back(elements[i]);
    else
      items[i].state.error = AXError::invalidElement;
  }
  if (!known.empty()) {
    learnToolkits(context_, known);
    listElements(known);
    for (Item& item : items)
      if (item.state.error == AXError::success) start(item);
    context_.run();
  }
  std::vector<AXElementState> states;
  states.reserve(items.size());
  for (Item& item : items) {
    AXElementState& state = item.state;
    for (const std::optional<AXElement>& child : item.byIndex)
      if (child) state.children.push_back(*child);
    if (state.error != AXError::success) state = {.error = state.error};
    states.push_back(std::move(state));
  }
  return states;
}

void AtspiReader::listElements(std::span<const AXElement> elements) {
  std::unordered_map<std::uint32_t, std::vector<AXElement>> unlisted;
  for (const AXElement element : elements) {
    const AtspiObject& object = context_.objects.object(element);
    const AtspiApplication& application = context_.objects.application(object.application);
    if (!application.listed && listsElements(application.toolkit))
      unlisted[object.application].push_back(element);
  }
  std::erase_if(unlisted, [](const auto& entry) { return entry.second.size() < worthListing; });
  const auto list = [&](std::uint32_t number) {
    AtspiApplication& application = context_.objects.application(number);
    application.listed = true;
    context_.bus->call(application.peer, "/org/a11y/atspi/cache", "org.a11y.atspi.Cache",
                       "GetItems", {}, [this, number](const DBusReply& reply) {
                         if (got(reply)) context_.objects.learn(number, reply);
                       });
  };
  for (const auto& [number, asked] : unlisted) list(number);
  context_.run();
  for (const auto& [number, asked] : unlisted) {
    if (!listsVisitedElementsOnly(context_.objects.application(number).toolkit)) continue;
    visitUnlisted(number, asked);
    list(number);
  }
  context_.run();
}

void AtspiReader::visitUnlisted(std::uint32_t number, std::span<const AXElement> from) {
  std::size_t visited = 0;
  std::vector<bool> seen;
  // Recursive through the handlers: every answer asks on at once.
  std::move_only_function<void(AXElement)> visit = [&](AXElement element) {
    if (element >= seen.size()) seen.resize(std::max<std::size_t>(element + 1, 2 * seen.size()));
    if (seen[element] || visited >= maxVisited) return;
    seen[element] = true;
    ++visited;
    AtspiObject& object = context_.objects.object(element);
    if (object.application != number) return;
    if (object.hasChildren) {
      for (const AXElement child : object.children) visit(child);
      return;
    }
    context_.ask(element, atspi::accessible, "GetChildren", {},
                 [&, element](const DBusReply& reply) {
                   if (!got(reply) || !reply.is("a(so)")) return;
                   DBusReader body = reply.body;
                   DBusReader list = body.array(8);
                   while (list.more()) {
                     list.structure();
                     if (const auto child = reference(list))
                       visit(context_.objects.element(child->first, child->second, element));
                   }
                 });
  };
  for (const AXElement element : from) visit(element);
  context_.run();
}

void AtspiReader::start(Item& item) {
  const AtspiObject& object = context_.objects.object(item.element);
  const AtspiApplication& application = context_.objects.application(object.application);
  if (context_.bus->gaveUp(application.peer)) {
    context_.incomplete = true;
    item.state.error = AXError::cannotComplete;
    return;
  }
  if (object.hasFacts) {
    item.facts = object.facts;
    askRest(item);
  } else {
    askFacts(item);
  }
}

void AtspiReader::askFacts(Item& item) {
  item.factsAwaited = 1;
  context_.ask(
      item.element, atspi::accessible, "GetRole", {}, [this, &item](const DBusReply& reply) {
        if (got(reply) && reply.is("u"))
          item.facts.role = DBusReader(reply.body).uint32();
        else
          item.state.error =
              reply.outcome == DBusReply::Outcome::value ? AXError::failure : atspiError(reply);
        factArrived(item);
      });
  if (wants(title | value)) {
    ++item.factsAwaited;
    context_.askProperty(item.element, atspi::accessible, "Name",
                         [this, &item](const DBusReply& reply) {
                           got(reply);
                           if (const auto name = textProperty(reply))
                             item.facts.name = boundedText(*name);
                           factArrived(item);
                         });
  }
  if (wants(role | subrole | value | enabled | focused | frame)) {
    ++item.factsAwaited;
    context_.ask(item.element, atspi::accessible, "GetState", {},
                 [this, &item](const DBusReply& reply) {
                   got(reply);
                   if (const auto states = statesIn(reply)) item.facts.states = *states;
                   factArrived(item);
                 });
  }
}

void AtspiReader::factArrived(Item& item) {
  if (--item.factsAwaited > 0 || item.state.error != AXError::success) return;
  askRest(item);
}

void AtspiReader::askRest(Item& item) {
  tellFacts(item);
  if (wants(frame)) askFrame(item);
  if (wants(value)) askValue(item);
  if (wants(children)) askChildren(item);
}

void AtspiReader::tellFacts(Item& item) {
  AtspiObject& object = context_.objects.object(item.element);
  const AtspiToolkit toolkit = context_.objects.application(object.application).toolkit;
  const AtspiFacts& facts = item.facts;
  object.role = facts.role;
  const std::uint32_t parentRole = object.parent == item.element
                                       ? atspiRole::invalid
                                       : context_.objects.object(object.parent).role;
  item.kind = atspiKind(facts.role, facts.states, parentRole, toolkit == AtspiToolkit::webkit);
  AXElementState& state = item.state;
  if (wants(role)) state.role = item.kind.role;
  if (wants(subrole) && !item.kind.subrole.empty()) state.subrole = item.kind.subrole;
  if (wants(title) && !facts.name.empty() && !isClassName(toolkit, facts.name))
    state.title = facts.name;
  if (atspiIsRoot(facts.role)) return;
  if (wants(enabled)) state.enabled = facts.states.has(AtspiStates::sensitive);
  if (wants(focused)) state.focused = facts.states.has(AtspiStates::focused);
}

void AtspiReader::askFrame(Item& item) {
  const AtspiToolkit toolkit = context_.objects.applicationOf(item.element).toolkit;
  if (atspiIsRoot(item.facts.role) || !item.facts.interfaces.component) return;
  const AtspiStates states = item.facts.states;
  if (!states.has(tellsShowing(toolkit) ? AtspiStates::showing : AtspiStates::visible) ||
      states.has(AtspiStates::iconified)) {
    setFrame(item, unseen);
    return;
  }
  const std::uint32_t coordinates = extentsInWindow(toolkit) ? 1 : 0;
  context_.ask(item.element, atspi::component, "GetExtents", DBusArguments().add(coordinates),
               [this, &item](const DBusReply& reply) {
                 if (!got(reply) || !reply.is("(iiii)")) return;
                 DBusReader body = reply.body;
                 const int x = body.int32();
                 const int y = body.int32();
                 const int width = body.int32();
                 const int height = body.int32();
                 if (!body.ok()) return;
                 const bool somewhere = x != INT_MIN && y != INT_MIN && width >= 0 && height >= 0;
                 setFrame(item, somewhere
                                    ? Rect{double(x), double(y), double(width), double(height)}
                                    : unseen);
               });
}

void AtspiReader::setFrame(Item& item, std::optional<Rect> told) {
  AtspiObject& object = context_.objects.object(item.element);
  if (object.parent != item.element && !popsUp(item.facts.role))
    object.seenIn = context_.objects.object(object.parent).seenIn;
  // Scrolled out of sight: the place where it would be shows something else.
  if (object.seenIn && !overlap(*told, *object.seenIn)) told = unseen;
  if (atspiClips(item.facts.role) && *told != unseen)
    object.seenIn = object.seenIn ? intersection(*told, *object.seenIn) : *told;
  item.state.frame = told;
}

void AtspiReader::askValue(Item& item) {
  const AtspiStates states = item.facts.states;
  std::optional<std::string>& told = item.state.value;
  switch (item.kind.value) {
    case AtspiValue::none:
      break;
    case AtspiValue::name:
      told = item.facts.name;
      break;
    case AtspiValue::checked:
      told = states.has(AtspiStates::checked) || states.has(AtspiStates::pressed) ? "1" : "0";
      break;
    case AtspiValue::selected:
      told = states.has(AtspiStates::selected) ? "1" : "0";
      break;
    case AtspiValue::number:
      if (!item.facts.interfaces.value) break;
      context_.askProperty(item.element, atspi::valueInterface, "CurrentValue",
                           [this, &item](const DBusReply& reply) {
                             got(reply);
                             if (const auto number = numberProperty(reply))
                               item.state.value = fmt::to_string(*number);
                           });
      break;
    case AtspiValue::text:
    case AtspiValue::secret:
      if (item.facts.interfaces.text) askText(item);
      break;
    case AtspiValue::choice:
      askChoice(item);
      break;
  }
}

void AtspiReader::askText(Item& item) {
  if (item.kind.value == AtspiValue::secret) {
    context_.askProperty(item.element, atspi::textInterface, "CharacterCount",
                         [this, &item](const DBusReply& reply) {
                           got(reply);
                           const auto count = countProperty(reply);
                           if (!count) return;
                           item.state.value.emplace();
                           for (int i = 0; i < std::min(*count, 1024); ++i)
                             *item.state.value += "•";
                         });
    return;
  }
  context_.ask(item.element, atspi::textInterface, "GetText",
               DBusArguments().add(std::int32_t{0}).add(maxTextCharacters),
               [this, &item](const DBusReply& reply) {
                 if (!got(reply) || !reply.is("s")) return;
                 item.state.value = boundedText(DBusReader(reply.body).text());
               });
}

void AtspiReader::askChoice(Item& item) {
  if (!item.facts.interfaces.selection) {
    if (!item.facts.name.empty()) item.state.value = item.facts.name;
    return;
  }
  context_.ask(item.element, atspi::selection, "GetSelectedChild",
               DBusArguments().add(std::int32_t{0}), [this, &item](const DBusReply& reply) {
                 if (!got(reply) || !reply.is("(so)")) return;
                 DBusReader body = reply.body;
                 const auto chosen = reference(body);
                 if (!chosen) return;
                 const AXElement child =
                     context_.objects.element(chosen->first, chosen->second, item.element);
                 context_.askProperty(child, atspi::accessible, "Name",
                                      [this, &item](const DBusReply& named) {
                                        got(named);
                                        if (const auto name = textProperty(named))
                                          item.state.value = boundedText(*name);
                                      });
               });
}

void AtspiReader::askChildren(Item& item) {
  const AtspiObject& object = context_.objects.object(item.element);
  if (object.hasChildren) {
    const std::size_t count = std::min(object.children.size(), maxChildren_);
    item.state.children.assign(object.children.begin(), object.children.begin() + count);
    item.state.moreChildren = count < object.children.size();
    return;
  }
  const auto askAll = [this, &item] {
    context_.ask(item.element, atspi::accessible, "GetChildren", {},
                 [this, &item](const DBusReply& reply) { takeChildren(item, reply); });
  };
  if (!atspiHoldsRows(item.facts.role)) return askAll();
  context_.askProperty(item.element, atspi::accessible, "ChildCount",
                       [this, &item, askAll](const DBusReply& reply) {
                         if (!got(reply)) return;
                         const auto count = countProperty(reply);
                         if (count && *count > 0 && std::size_t(*count) > maxChildren_)
                           askChildrenByIndex(item, maxChildren_);
                         else
                           askAll();
                       });
}

void AtspiReader::askChildrenByIndex(Item& item, std::size_t count) {
  item.state.moreChildren = true;
  item.byIndex.resize(count);
  for (std::size_t index = 0; index < count; ++index) {
    context_.ask(item.element, atspi::accessible, "GetChildAtIndex",
                 DBusArguments().add(static_cast<std::int32_t>(index)),
                 [this, &item, index](const DBusReply& reply) {
                   if (!got(reply) || !reply.is("(so)")) return;
                   DBusReader body = reply.body;
                   if (const auto child = reference(body))
                     item.byIndex[index] =
                         context_.objects.element(child->first, child->second, item.element);
                 });
  }
}

void AtspiReader::takeChildren(Item& item, const DBusReply& reply) {
  if (!got(reply) || !reply.is("a(so)")) return;
  DBusReader body = reply.body;
  DBusReader list = body.array(8);
  while (list.more()) {
    list.structure();
    const auto child = reference(list);
    if (!child) continue;
    if (item.state.children.size() == maxChildren_) {
      item.state.moreChildren = true;
      return;
    }
    item.state.children.push_back(
        context_.objects.element(child->first, child->second, item.element));
  }
}

}  // namespace vesko
