#include "platform/linux/atspi_objects.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "base/utf8.h"
#include "platform/linux/atspi_bus.h"

namespace vesko {
namespace {

AtspiInterfaces interfacesFrom(DBusReader names) {
  constexpr std::string_view prefix = "org.a11y.atspi.";
  AtspiInterfaces found{false, false, false, false};
  while (names.more()) {
    std::string_view name = names.text();
    if (!name.starts_with(prefix)) continue;
    name.remove_prefix(prefix.size());
    found.component = found.component || name == "Component";
    found.selection = found.selection || name == "Selection";
    found.text = found.text || name == "Text";
    found.value = found.value || name == "Value";
  }
  return found;
}

AtspiStates statesFrom(DBusReader words) {
  const std::uint64_t low = words.more() ? words.uint32() : 0;
  const std::uint64_t high = words.more() ? words.uint32() : 0;
  return AtspiStates(high << 32 | low);
}

}  // namespace

std::string boundedText(std::string_view text) {
  if (text.size() > maxAXValueBytes) {
    std::size_t end = maxAXValueBytes;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
    text = text.substr(0, end);
  }
  return isValidUtf8(text) ? std::string(text) : std::string();
}

std::optional<std::uint32_t> AtspiObjects::applicationNamed(std::string_view busName) {
  std::string name(busName);
  if (const auto known = applicationNumbers_.find(name); known != applicationNumbers_.end())
    return known->second;
  if (applications_.size() >= maxApplications) return std::nullopt;
  const auto number = static_cast<std::uint32_t>(applications_.size());
  applications_.push_back({.busName = name, .peer = bus_ ? bus_->peer(busName) : 0});
  applicationNumbers_.emplace(std::move(name), number);
  return number;
}

std::optional<AXElement> AtspiObjects::element(std::string_view busName, std::string_view path,
                                               AXElement parent) {
  const auto application = applicationNamed(busName);
  if (!application || path.size() > maxTextBytes) return std::nullopt;
  std::string key(path);
  key += '\n';
  key += std::to_string(*application);
  if (const auto known = numbers_.find(key); known != numbers_.end()) return known->second;
  if (objects_.size() >= maxElements || pathBytes_ + path.size() > maxTextBytes)
    return std::nullopt;
  pathBytes_ += path.size();
  const auto number = static_cast<AXElement>(objects_.size());
  const auto added = numbers_.emplace(std::move(key), number).first;
  AtspiObject& object = objects_.emplace_back();
  object.application = *application;
  object.path = std::string_view(added->first).substr(0, path.size());
  object.parent = parent;
  return number;
}

std::optional<AXElement> AtspiObjects::root(std::string_view busName) {
  return element(busName, atspi::rootPath, static_cast<AXElement>(objects_.size()));
}

std::optional<AXElement> AtspiObjects::page(std::string_view busName, std::string_view path,
                                            pid_t process) {
  const auto page = element(busName, path, static_cast<AXElement>(objects_.size()));
  if (!page) return std::nullopt;
  objects_[*page].isPage = true;
  AtspiApplication& application = applicationOf(*page);
  application.toolkit = AtspiToolkit::webkit;
  application.toolkitKnown = true;
  application.process = process;
  return page;
}

void AtspiObjects::forgetStates() {
  for (AtspiObject& object : objects_) {
    object.hasFacts = false;
    object.hasChildren = false;
    object.facts = {};
    object.children.clear();
    object.place = {};
  }
  nameBytes_ = 0;
  for (AtspiApplication& application : applications_) {
    application.listed = false;
    application.windows.reset();
    application.windowOf.reset();
  }
}

void AtspiObjects::learn(std::uint32_t application, const DBusReply& items) {
  if (!items.is(atspiItemsType)) return;
  const std::string name = applications_[application].busName;
  struct Place {
    AXElement parent;
    std::int32_t index;
    AXElement child;
  };
  std::vector<Place> places;
  std::unordered_map<AXElement, std::int32_t> counts;
  DBusReader body = items.body;
  DBusReader list = body.array(8);
  while (list.more()) {
    list.structure();
    list.structure();
    const std::string_view bus = list.text();
    const std::string_view path = list.text();
    list.structure();
    list.text();  // its application
    list.text();
    list.structure();
    const std::string_view parentBus = list.text();
    const std::string_view parentPath = list.text();
    const std::int32_t index = list.int32();
    const std::int32_t childCount = list.int32();
    AtspiFacts facts;
    facts.interfaces = interfacesFrom(list.array(4));
    facts.name = boundedText(list.text());
    facts.role = list.uint32();
    list.text();  // its description
    facts.states = statesFrom(list.array(4));
    if (!list.ok()) return;
    if (bus != name) continue;
    const bool hasParent = parentBus == name && parentPath != atspi::nullPath;
    const auto top = root(name);
    const auto parent = hasParent && top ? element(parentBus, parentPath, *top) : top;
    const auto child = parent ? element(bus, path, *parent) : std::nullopt;
    if (!child) continue;
    AtspiObject& object = objects_[*child];
    const std::size_t others = nameBytes_ - object.facts.name.size();
    if (others + facts.name.size() > maxTextBytes) continue;
    nameBytes_ = others + facts.name.size();
    object.hasFacts = true;
    object.role = facts.role;
    object.facts = std::move(facts);
    counts[*child] = childCount;
    if (hasParent && *parent != *child) places.push_back({*parent, index, *child});
  }
  std::ranges::sort(places, {}, [](const Place& p) { return std::tuple(p.parent, p.index); });
  // A list of children counts when it is exactly as long as the application says and in one order.
  for (const auto& [parent, count] : counts) {
    const auto of = std::ranges::equal_range(places, parent, {}, &Place::parent);
    AtspiObject& object = objects_[parent];
    std::int32_t expected = 0;
    std::vector<AXElement> children;
    for (const Place& place : of) {
      if (place.index == expected) ++expected;
      children.push_back(place.child);
    }
    object.hasChildren = count == expected && std::ssize(children) == count;
    if (object.hasChildren) {
      for (const AXElement child : children) objects_[child].parent = parent;
      object.children = std::move(children);
    }
  }
}

}  // namespace vesko
