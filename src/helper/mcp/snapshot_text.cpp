#include "helper/mcp/snapshot_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <deque>

#include "base/text.h"
#include "helper/mcp/json_rpc.h"
#include "helper/mcp/tool_result.h"

namespace vesko::mcp {
namespace {

using json::Value;

constexpr std::size_t titleLimit = 200;
constexpr std::size_t valueLimit = 200;
/// Of the element that the snapshot is about.
constexpr std::size_t rootValueLimit = 20'000;

constexpr auto wrappers = std::to_array<std::string_view>(
    {"AXGroup", "AXUnknown", "AXScrollArea", "AXSplitGroup", "AXLayoutArea", "AXLayoutItem",
     "AXGenericElement", "AXSplitter", "AXScrollBar", "AXGrowArea", "AXMatte", "AXRuler"});

const json::Array& childrenOf(const Value& node) {
  static const json::Array none;
  const Value* children = node.find("children");
  return children && children->asArray() ? *children->asArray() : none;
}

std::string_view textOf(const Value& node, std::string_view key) {
  const std::string* text = textMember(node, key);
  return text ? std::string_view(*text) : std::string_view();
}

bool flag(const Value& node, std::string_view key) {
  const Value* value = node.find(key);
  return value && value->asBool() == true;
}

/// A label that only repeats what it labels.
bool repeats(const Value& node, std::string_view parentTitle) {
  if (textOf(node, "role") != "AXStaticText" || !childrenOf(node).empty()) return false;
  const auto title = textOf(node, "title");
  const auto value = textOf(node, "value");
  return (title.empty() || title == parentTitle) && (value.empty() || value == parentTitle) &&
         !flag(node, "focused");
}

std::string frameText(const Value& node) {
  const Value* frame = objectMember(node, "frame");
  if (!frame) return {};
  std::array<double, 4> sides{};
  for (const auto& [i, key] : {std::pair{0U, "x"}, {1U, "y"}, {2U, "w"}, {3U, "h"}}) {
    const Value* side = frame->find(key);
    if (!side || !side->asDouble()) return {};
    sides[i] = std::round(*side->asDouble());
  }
  // Without an extent there is nothing to point at.
  if (sides[2] <= 0 || sides[3] <= 0) return {};
  return fmt::format(" {:.0f},{:.0f} {:.0f}x{:.0f}", sides[0], sides[1], sides[2], sides[3]);
}

class Renderer {
 public:
  Renderer(ElementRefs& refs, bool paths) : refs_(refs), paths_(paths) {}

  void add(const Value& node, std::size_t depth, std::string_view parentTitle) {
    ++nodes;
    const bool root = nodes == 1;
    if (!root && (isUnnamedWrapper(node) || (!parentTitle.empty() && repeats(node, parentTitle)))) {
      ++left;
      for (const Value& child : childrenOf(node)) add(child, depth, parentTitle);
      return;
    }
    // Deep nesting would cost more than it tells.
    out.append(std::min<std::size_t>(depth, 24), ' ');
    out += elementLine(node, refs_, paths_, root ? rootValueLimit : valueLimit);
    out += '\n';
    for (const Value& child : childrenOf(node)) add(child, depth + 1, textOf(node, "title"));
  }

  std::string out;
  std::size_t nodes = 0;
  std::size_t left = 0;

 private:
  ElementRefs& refs_;
  bool paths_;
};

}  // namespace

bool isUnnamedWrapper(const Value& node) {
  return std::ranges::find(wrappers, textOf(node, "role")) != wrappers.end() &&
         trim(textOf(node, "title")).empty() && trim(textOf(node, "value")).empty() &&
         !flag(node, "focused");
}

std::string shortRole(const Value& node) {
  std::string_view role = textOf(node, "role");
  if (role.starts_with("AX")) role.remove_prefix(2);
  if (role == "StaticText") return "text";
  if (role == "MenuBarItem") return "menu";
  if (role == "Application") return "app";
  return role.empty() ? "unknown" : lowerAscii(role);
}

std::string elementLine(const Value& node, ElementRefs& refs, bool paths, std::size_t limit) {
  std::string line = shortRole(node);
  const std::string_view title = trim(textOf(node, "title"));
  const std::string_view value = textOf(node, "value");
  if (!title.empty()) line += ' ' + quoted(title, titleLimit);
  if (!value.empty() && value != title) line += " =" + quoted(value, limit);
  const Value* enabled = node.find("enabled");
  if (enabled && enabled->asBool() == false) line += " disabled";
  if (flag(node, "focused")) line += " focused";
  line += frameText(node);
  if (const std::string* path = textMember(node, "path")) {
    line += " [" + refs.refOf(*path) + "]";
    if (paths) line += " path=" + *path;
  }
  return line;
}

std::string snapshotText(const Value& response, ElementRefs& refs,
                         const SnapshotTextOptions& options) {
  const Value* tree = objectMember(response, "tree");
  if (!tree) return "The companion's answer holds no tree.";
  Renderer renderer(refs, options.paths);
  renderer.add(*tree, 0, {});

  std::string notes;
  if (textOf(response, "incomplete") == "deadline")
    notes +=
        "Incomplete: an application stopped answering; only what it had said by then is "
        "here.\n";
  if (options.maxNodes > 0 && renderer.nodes >= options.maxNodes)
    notes += fmt::format(
        "Cut at max_nodes={}: there may be more. Raise it (up to 2000), pass "
        "element for one part, or use find_elements.\n",
        options.maxNodes);
  else if (textOf(response, "incomplete") == "size")
    notes +=
        "Cut: there is more than one answer holds. Pass element for one part, or use "
        "find_elements.\n";
  if (renderer.left > 0)
    notes += fmt::format("({} unnamed or repeating elements are left out)\n", renderer.left);
  std::size_t rest = 0;
  std::string text(wholeLines(renderer.out, maxTextBytes, rest));
  if (rest > 0)
    text += fmt::format(
        "{} more lines are left out to keep the answer small: pass element for one "
        "part, lower max_nodes, or use find_elements.\n",
        rest);
  return text + notes;
}

std::string snapshotJson(Value response, std::size_t limit) {
  auto text = json::serialize(response);
  // Breadth first, so that what is kept is the upper part of the tree.
  for (std::size_t keep = 1024; text && text->size() > limit; keep /= 2) {
    Value cut = response;
    json::Object* members = cut.asObject();
    if (!members || keep == 0) return R"({"truncated":"nothing fits; pass element for one part"})";
    std::size_t kept = 0;
    std::size_t dropped = 0;
    std::deque<Value*> level;
    for (auto& [key, value] : *members) {
      if (key == "tree") level.push_back(&value);
    }
    while (!level.empty()) {
      Value* node = level.front();
      level.pop_front();
      if (!node->asObject()) continue;
      for (auto& [key, value] : *node->asObject()) {
        if (key != "children" || !value.asArray()) continue;
        json::Array& children = *value.asArray();
        const std::size_t room = std::min(children.size(), keep - std::min(keep, kept));
        dropped += children.size() - room;
        children.resize(room);
        kept += room;
        for (Value& child : children) level.push_back(&child);
      }
    }
    members->emplace_back("truncated",
                          fmt::format("{} subtrees are left out to keep the answer small: pass "
                                      "element for one part, or use find_elements",
                                      dropped));
    text = json::serialize(cut);
  }
  return text.value_or("{}");
}

}  // namespace vesko::mcp
