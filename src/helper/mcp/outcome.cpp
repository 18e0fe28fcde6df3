#include "helper/mcp/outcome.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "base/json_record.h"
#include "helper/mcp/json_rpc.h"
#include "helper/mcp/snapshot_text.h"

namespace vesko::mcp {
namespace {

using json::Value;
using namespace std::chrono_literals;

/// Enough for the windows that people act in, and read within a few milliseconds.
constexpr int sceneNodes = 400;
constexpr std::size_t maxSaid = 6;

/// Growing pauses: most effects show at once, some after an animation.
constexpr auto pauses = std::to_array({20ms, 40ms, 60ms, 100ms});

struct WindowRecord {
  std::optional<std::string> bundleId;
  std::optional<std::string> title;
  std::int64_t id = 0;
  std::optional<Rect> frame;
  std::optional<bool> focused;
  std::optional<bool> minimized;

  static constexpr auto jsonFields() {
    using R = WindowRecord;
    return std::tuple{
        json::field("bundle_id", &R::bundleId), json::field("title", &R::title),
        json::field("window_id", &R::id),       json::field("frame", &R::frame),
        json::field("focused", &R::focused),    json::field("minimized", &R::minimized)};
  }
};

void collect(const Value& node, Scene& scene) {
  const std::string* path = textMember(node, "path");
  if (path && (!isUnnamedWrapper(node) || scene.elements.empty())) {
    if (scene.root.empty()) scene.root = *path;
    const auto text = [&](std::string_view key) {
      const std::string* member = textMember(node, key);
      return member ? *member : std::string();
    };
    const auto isSet = [&](std::string_view key) {
      const Value* value = node.find(key);
      return value ? value->asBool() : std::nullopt;
    };
    Scene::Element element{.name = shortRole(node), .title = text("title"), .value = text("value")};
    if (!element.title.empty()) element.name += ' ' + quoted(element.title, 60);
    element.focused = isSet("focused") == true;
    element.state = isSet("enabled") == false ? "disabled" : "enabled";
    if (const Value* frame = node.find("frame"))
      element.frame = json::serialize(*frame).value_or("");
    // A window's title is in its path: without it, a changed title leaves the rest comparable.
    const bool below = path->starts_with(scene.root);
    scene.elements.emplace(below ? path->substr(scene.root.size()) : *path, std::move(element));
  }
  const Value* children = node.find("children");
  for (const Value& child : children && children->asArray() ? *children->asArray() : json::Array())
    collect(child, scene);
}

/// The part of a text that differs, with a little of what stands before it.
std::string newPart(const std::string& before, const std::string& after) {
  std::size_t same = 0;
  while (same < before.size() && same < after.size() && before[same] == after[same]) ++same;
  same -= std::min<std::size_t>(same, 20);
  while (same > 0 && (after[same] & 0xC0) == 0x80) --same;
  return (same > 0 ? "…" : "") + quoted(std::string_view(after).substr(same), 80);
}

void compareWindows(const Scene& before, const Scene& after, bool frames,
                    std::vector<std::string>& said) {
  const auto in = [](const std::vector<WindowState>& windows, std::int64_t id) {
    const auto found = std::ranges::find(windows, id, &WindowState::id);
    return found == windows.end() ? nullptr : &*found;
  };
  if (!before.windows || !after.windows) return;
  for (const WindowState& window : *after.windows) {
    const WindowState* old = in(*before.windows, window.id);
    if (!old) {
      said.push_back("window opened: " + window.describe());
      continue;
    }
    if (old->title != window.title)
      said.push_back(fmt::format("window title is now {}", quoted(window.title, 80)));
    if (!old->focused && window.focused)
      said.push_back("window in front now: " + window.describe());
    if (old->minimized != window.minimized)
      said.push_back(fmt::format("window {} {}", window.id,
                                 window.minimized ? "is minimized" : "is restored"));
    if (frames && old->frame != window.frame) said.push_back("window moved: " + window.describe());
  }
  for (const WindowState& window : *before.windows) {
    if (!in(*after.windows, window.id)) said.push_back("window closed: " + window.describe());
  }
}

/// Whether both scenes show the same window.
bool sameWindow(const Scene& before, const Scene& after) {
  const WindowState* old = before.windowInFront();
  const WindowState* now = after.windowInFront();
  return before.root == after.root || (old && now && old->id == now->id);
}

void compareElements(const Scene& before, const Scene& after, bool frames,
                     std::vector<std::string>& said) {
  std::vector<std::string> minor;
  for (const auto& [path, element] : after.elements) {
    const auto old = before.elements.find(path);
    if (old == before.elements.end()) {
      minor.push_back("appeared: " + element.name);
      continue;
    }
    if (old->second.value != element.value)
      said.push_back(fmt::format("{} now has the value {}", element.name,
                                 newPart(old->second.value, element.value)));
    // A window's own title was told with the windows.
    if (old->second.title != element.title && !(path.empty() && before.windows))
      said.push_back(fmt::format("{} was titled {}", element.name, quoted(old->second.title, 60)));
    if (old->second.state != element.state)
      minor.push_back(fmt::format("{} is {}", element.name, element.state));
    if (!old->second.focused && element.focused)
      minor.push_back(fmt::format("{} has the focus", element.name));
    if (frames && old->second.frame != element.frame)
      minor.push_back(fmt::format("{} moved", element.name));
  }
  for (const auto& [path, element] : before.elements) {
    if (!after.elements.contains(path)) minor.push_back("gone: " + element.name);
  }
  std::ranges::move(minor, std::back_inserter(said));
}

constexpr std::string_view wordOf(Outcome outcome) {
  switch (outcome) {
    case Outcome::confirmed:
      return "confirmed";
    case Outcome::unchanged:
      return "unchanged";
    case Outcome::notVerifiable:
      return "not_verifiable";
  }
  return {};
}

}  // namespace

std::string WindowState::describe() const {
  std::string text = fmt::format("{} {} {:.0f},{:.0f} {:.0f}x{:.0f}", id, quoted(title, 120),
                                 frame.x, frame.y, frame.w, frame.h);
  if (!bundleId.empty()) text += " " + quoted(bundleId, 120);
  if (focused) text += " focused";
  if (minimized) text += " minimized";
  return text;
}

std::expected<std::vector<WindowState>, LinkError> readWindows(const ToolCall& call,
                                                               json::Object filter) {
  auto answer = call.post("/window/list", std::move(filter));
  if (!answer) return std::unexpected(std::move(answer.error()));
  std::vector<WindowState> windows;
  const Value* list = answer->find("windows");
  for (const Value& entry : list && list->asArray() ? *list->asArray() : json::Array()) {
    WindowRecord record;
    if (!json::decodeInto(entry, record)) continue;
    windows.push_back({.id = record.id,
                       .bundleId = record.bundleId.value_or(""),
                       .title = record.title.value_or(""),
                       .frame = record.frame.value_or(Rect()),
                       .focused = record.focused.value_or(false),
                       .minimized = record.minimized.value_or(false)});
  }
  return windows;
}

const Scene::Element* Scene::focusedElement() const {
  const Element* found = nullptr;
  std::size_t deepest = 0;
  for (const auto& [path, element] : elements) {
    if (!element.focused || path.size() <= deepest) continue;
    found = &element;
    deepest = path.size();
  }
  return found;
}

const WindowState* Scene::windowInFront() const {
  if (!windows) return nullptr;
  const auto front = std::ranges::find(*windows, true, &WindowState::focused);
  return front == windows->end() ? nullptr : &*front;
}

Scene readScene(const ToolCall& call, const SceneOptions& options) {
  Scene scene;
  json::Object request{{"max_nodes", sceneNodes}, {"include_offscreen", false}};
  if (options.element.empty())
    request.emplace_back("scope", "frontmost_window");
  else
    request.emplace_back("element_path", options.element);
  if (auto windows = readWindows(call))
    scene.windows = std::move(*windows);
  else
    scene.problem = windows.error().message;
  if (options.windowsOnly) return scene;
  const auto answer = call.post("/ax/snapshot", std::move(request), 5s);
  const Value* tree = answer ? objectMember(*answer, "tree") : nullptr;
  scene.problem = answer ? "" : answer.error().message;
  scene.gone = !answer && answer.error().kind == LinkError::Kind::elementGone;
  if (answer && answer->find("incomplete"))
    scene.problem = "the application stopped answering.";
  else if (tree)
    collect(*tree, scene);
  return scene;
}

std::vector<std::string> changes(const Scene& before, const Scene& after, bool frames) {
  std::vector<std::string> said;
  compareWindows(before, after, frames, said);
  if (after.gone && !before.gone && said.empty())
    said.emplace_back("the window that held it is gone");
  if (!before.problem.empty() || !after.problem.empty()) return said;
  if (sameWindow(before, after))
    compareElements(before, after, frames, said);
  else if (const auto front = after.elements.find("");
           said.empty() && front != after.elements.end())
    said.push_back("in front now: " + front->second.name);
  return said;
}

ToolResult outcomeResult(Outcome outcome, std::string detail) {
  std::string word(wordOf(outcome));
  ToolResult result{.text = fmt::format("{}: {}", word, detail)};
  result.structured = json::Object{{"outcome", std::move(word)}, {"detail", std::move(detail)}};
  return result;
}

bool becomes(const ToolCall& call, std::chrono::milliseconds bound,
             const std::function<bool()>& look) {
  const auto end = std::chrono::steady_clock::now() + bound;
  for (std::size_t turn = 0;; ++turn) {
    if (look()) return true;
    if (std::chrono::steady_clock::now() >= end) return false;
    if (!call.context.wait(pauses[std::min(turn, pauses.size() - 1)])) return false;
  }
}

ToolResult nothingDiffers() {
  return outcomeResult(Outcome::unchanged,
                       "it was sent, but half a second later no window and no element that "
                       "accessibility shows is different. Look with capture_screen before trying "
                       "again.");
}

ToolResult actAndCompare(const ToolCall& call, const SceneOptions& options, const Act& act,
                         ToolResult otherwise) {
  const Scene before = readScene(call, options);
  if (auto done = act(); !done) return failed(done.error());
  Scene after;
  std::vector<std::string> said;
  const auto look = [&] {
    after = readScene(call, options);
    said = changes(before, after, options.frames);
    return !said.empty();
  };
  if (becomes(call, effectBound, look)) {
    // What begins to change goes on for a moment; the answer tells where it led.
    if (call.context.wait(80ms)) look();
    if (said.empty()) return outcomeResult(Outcome::unchanged, "it went back to what it was");
    std::string detail;
    for (const std::string& one : std::span(said).first(std::min(said.size(), maxSaid)))
      detail += (detail.empty() ? "" : "; ") + one;
    if (said.size() > maxSaid)
      detail += fmt::format("; and {} more changes", said.size() - maxSaid);
    return outcomeResult(Outcome::confirmed, std::move(detail));
  }
  if (const auto& problem = after.problem.empty() ? before.problem : after.problem;
      !problem.empty())
    return outcomeResult(Outcome::notVerifiable,
                         fmt::format("it was sent, but its effect cannot be read: {} Look with "
                                     "capture_screen.",
                                     problem));
  return otherwise;
}

}  // namespace vesko::mcp
