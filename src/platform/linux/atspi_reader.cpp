#include "platform/linux/atspi_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include "base/text.h"
#include "base/utf8.h"
#include "platform/linux/atspi_pages.h"

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

std::optional<std::pair<std::string_view, std::string_view>> reference(DBusReader& reader) {
  const std::string_view bus = reader.text();
  const std::string_view path = reader.text();
  if (!reader.ok() || bus.empty() || path == atspi::nullPath) return std::nullopt;
  return std::pair(bus, path);
}

}  // namespace

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
    if (wants(children)) {
      for (Item& item : items) {
        if (!item.showsPage || !item.state.children.empty() || room_ == 0) continue;
        if (const auto page = pageInView(context_, item.element)) {
          item.state.children.push_back(*page);
          --room_;
        }
      }
    }
  }
  std::vector<AXElementState> states;
  states.reserve(items.size());
  for (Item& item : items) {
    AXElementState& state = item.state;
    for (const std::optional<AXElement>& child : item.byIndex)
      if (child) state.children.push_back(*child);
    if (wants(frame) && context_.bus && context_.objects.contains(item.element))
      state.frame = places_.frame(item.element);
    if (wants(title) && state.error == AXError::success && !state.title) nameByTitleBar(item);
    if (state.error != AXError::success) state = {.error = state.error};
    states.push_back(std::move(state));
  }
  return states;
}

void AtspiReader::nameByTitleBar(Item& item) {
  // A toolkit leaves windows without a name when the application fills their title bars.
  if (!atspiHasTitleBar(item.facts.role) ||
      !(item.facts.states.has(AtspiStates::visible) || item.facts.states.has(AtspiStates::showing)))
    return;
  const X11Window* window = windowOf(context_, item.element);
  if (window && window->title && !window->title->empty())
    item.state.title = boundedText(*window->title);
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
                         if (context_.got(reply)) context_.objects.learn(number, reply);
                       });
  };
  for (const auto& [number, asked] : unlisted) list(number);
  context_.run();
  for (const auto& [number, asked] : unlisted) {
    if (!listsVisitedElementsOnly(context_.objects.application(number).toolkit)) continue;
    if (visitUnlisted(number, asked)) list(number);
  }
  context_.run();
}

bool AtspiReader::visitUnlisted(std::uint32_t number, std::span<const AXElement> from) {
  std::size_t visited = 0;
  bool asked = false;
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
    asked = true;
    context_.ask(element, atspi::accessible, "GetChildren", {},
                 [&, element](const DBusReply& reply) {
                   if (!context_.got(reply) || !reply.is("a(so)")) return;
                   DBusReader body = reply.body;
                   DBusReader list = body.array(8);
                   while (list.more() && visited < maxVisited) {
                     list.structure();
                     if (const auto child = known(list, element)) visit(*child);
                   }
                 });
  };
  for (const AXElement element : from) visit(element);
  context_.run();
  return asked;
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
        if (context_.got(reply) && reply.is("u"))
          item.facts.role = DBusReader(reply.body).uint32();
        else
          item.state.error =
              reply.outcome == DBusReply::Outcome::value ? AXError::failure : atspiError(reply);
        factArrived(item);
      });
  if (wants(title | value | children)) {
    ++item.factsAwaited;
    context_.askProperty(item.element, atspi::accessible, "Name",
                         [this, &item](const DBusReply& reply) {
                           context_.got(reply);
                           if (const auto name = textProperty(reply))
                             item.facts.name = boundedText(*name);
                           factArrived(item);
                         });
  }
  if (wants(role | subrole | title | value | enabled | focused | frame)) {
    ++item.factsAwaited;
    context_.ask(item.element, atspi::accessible, "GetState", {},
                 [this, &item](const DBusReply& reply) {
                   context_.got(reply);
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
  if (wants(title | value) &&
      showsLabelInside(context_.objects.applicationOf(item.element).toolkit, item.facts.role)) {
    // What else it is called says what it is, not which.
    if (item.facts.role == atspiRole::pageTab) item.state.title.reset();
    askLabelInside(item, item.element, 0);
  }
  if (wants(frame)) places_.ask(item.element, item.facts);
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
  item.showsPage = mayShowPage(toolkit, facts.name);
  if (isClassName(toolkit, facts.name)) item.facts.name.clear();
  const bool named =
      !facts.name.empty() && !(item.kind.value == AtspiValue::choice && namesChoice(toolkit));
  if (wants(title) && named) state.title = facts.name;
  if (atspiIsRoot(facts.role) || object.isPage) return;
  if (wants(enabled)) state.enabled = facts.states.has(AtspiStates::sensitive);
  const bool byFocus = facts.role == atspiRole::pageTab && tellsSelectedTabByFocus(toolkit);
  if (wants(focused)) state.focused = !byFocus && facts.states.has(AtspiStates::focused);
}

void AtspiReader::askValue(Item& item) {
  const AtspiToolkit toolkit = context_.objects.applicationOf(item.element).toolkit;
  const AtspiStates states = item.facts.states;
  std::optional<std::string>& told = item.state.value;
  switch (item.kind.value) {
    case AtspiValue::none:
      if (textAnywhere(toolkit)) askText(item);
      break;
    case AtspiValue::name:
      if (!item.facts.name.empty()) told = item.facts.name;
      break;
    case AtspiValue::checked:
      told = states.has(AtspiStates::checked) || states.has(AtspiStates::pressed) ? "1" : "0";
      break;
    case AtspiValue::selected:
      told = states.has(tellsSelectedTabByFocus(toolkit) ? AtspiStates::focused
                                                         : AtspiStates::selected)
                 ? "1"
                 : "0";
      break;
    case AtspiValue::number:
      if (!item.facts.interfaces.value) break;
      context_.askProperty(item.element, atspi::valueInterface, "CurrentValue",
                           [this, &item](const DBusReply& reply) {
                             context_.got(reply);
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
                           context_.got(reply);
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
                 if (!context_.got(reply) || !reply.is("s")) return;
                 std::string text = boundedText(DBusReader(reply.body).text());
                 // Stands for a child inside the text.
                 constexpr std::string_view embedded = "\uFFFC";
                 for (auto at = text.find(embedded); at != std::string::npos;
                      at = text.find(embedded, at))
                   text.erase(at, embedded.size());
                 if (item.kind.value == AtspiValue::text || !trim(text).empty())
                   item.state.value = std::move(text);
               });
}

void AtspiReader::askChoice(Item& item) {
  if (showsLabelInside(context_.objects.applicationOf(item.element).toolkit, item.facts.role))
    return;
  if (namesChoice(context_.objects.applicationOf(item.element).toolkit)) {
    item.state.value = item.facts.name;
    return;
  }
  if (!item.facts.interfaces.selection) return;
  context_.ask(item.element, atspi::selection, "GetSelectedChild",
               DBusArguments().add(std::int32_t{0}), [this, &item](const DBusReply& reply) {
                 if (!context_.got(reply) || !reply.is("(so)")) return;
                 DBusReader body = reply.body;
                 const auto chosen = known(body, item.element);
                 if (!chosen) return;
                 context_.askProperty(*chosen, atspi::accessible, "Name",
                                      [this, &item](const DBusReply& named) {
                                        context_.got(named);
                                        if (const auto name = textProperty(named))
                                          item.state.value = boundedText(*name);
                                      });
               });
}

void AtspiReader::askLabelInside(Item& item, AXElement within, int depth) {
  constexpr int maxDepth = 6;
  constexpr std::size_t maxBreadth = 8;
  constexpr int maxLookedInside = 128;
  context_.ask(within, atspi::accessible, "GetChildren", {},
               [this, &item, within, depth](const DBusReply& reply) {
                 if (!context_.got(reply) || !reply.is("a(so)")) return;
                 DBusReader body = reply.body;
                 DBusReader list = body.array(8);
                 for (std::size_t i = 0; i < maxBreadth && list.more(); ++i) {
                   list.structure();
                   const auto child = known(list, within);
                   if (!child || ++item.lookedInside > maxLookedInside) continue;
                   askWhetherLabel(item, *child);
                   if (depth < maxDepth) askLabelInside(item, *child, depth + 1);
                 }
               });
}

void AtspiReader::askWhetherLabel(Item& item, AXElement element) {
  // The answers come in this order; one that shows no size lies on a page that is not shown.
  const auto label = std::make_shared<std::string>();
  context_.ask(element, atspi::accessible, "GetRole", {}, [label](const DBusReply& reply) {
    if (reply.is("u") && DBusReader(reply.body).uint32() == atspiRole::label) *label = "?";
  });
  context_.askProperty(element, atspi::accessible, "Name", [label](const DBusReply& reply) {
    const auto name = textProperty(reply);
    if (name && !label->empty())
      *label = boundedText(*name);
    else
      label->clear();
  });
  context_.ask(element, atspi::component, "GetExtents", DBusArguments().add(std::uint32_t{1}),
               [this, &item, label](const DBusReply& reply) {
                 DBusReader body = reply.body;
                 if (!reply.is("(iiii)") || label->empty()) return;
                 body.int32();
                 body.int32();
                 const bool isTab = item.facts.role == atspiRole::pageTab;
                 std::optional<std::string>& told = isTab ? item.state.title : item.state.value;
                 if (body.int32() > 0 && !told && wants(isTab ? title : value)) told = *label;
               });
}

std::optional<AXElement> AtspiReader::known(DBusReader& reader, AXElement parent) {
  const auto named = reference(reader);
  return named ? context_.objects.element(named->first, named->second, parent) : std::nullopt;
}

void AtspiReader::askChildren(Item& item) {
  const AtspiObject& object = context_.objects.object(item.element);
  if (object.hasChildren) {
    const std::size_t count = std::min(object.children.size(), room_);
    room_ -= count;
    item.state.children.assign(object.children.begin(), object.children.begin() + count);
    item.state.moreChildren = count < object.children.size();
    return;
  }
  const auto askAll = [this, &item] {
    context_.ask(item.element, atspi::accessible, "GetChildren", {},
                 [this, &item](const DBusReply& reply) { takeChildren(item, reply); });
  };
  if (isLeaf(context_.objects.application(object.application).toolkit, item.facts.role)) return;
  if (!atspiHoldsRows(item.facts.role)) return askAll();
  context_.askProperty(item.element, atspi::accessible, "ChildCount",
                       [this, &item, askAll](const DBusReply& reply) {
                         if (!context_.got(reply)) return;
                         const auto count = countProperty(reply);
                         if (count && *count > 0 && std::size_t(*count) > room_)
                           askChildrenByIndex(item, std::exchange(room_, 0));
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
                   if (!context_.got(reply) || !reply.is("(so)")) return;
                   DBusReader body = reply.body;
                   item.byIndex[index] = known(body, item.element);
                 });
  }
}

void AtspiReader::takeChildren(Item& item, const DBusReply& reply) {
  if (!context_.got(reply) || !reply.is("a(so)")) return;
  DBusReader body = reply.body;
  DBusReader list = body.array(8);
  while (list.more()) {
    list.structure();
    const auto named = reference(list);
    if (!named) continue;
    const auto child = room_ > 0
                           ? context_.objects.element(named->first, named->second, item.element)
                           : std::nullopt;
    if (!child) {
      item.state.moreChildren = true;
      return;
    }
    --room_;
    item.state.children.push_back(*child);
  }
}

}  // namespace vesko
