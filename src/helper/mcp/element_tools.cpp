// The tools that act on an element through accessibility.
#include <fmt/format.h>

#include "helper/mcp/json_rpc.h"
#include "helper/mcp/outcome.h"
#include "helper/mcp/snapshot_text.h"

namespace vesko::mcp {
namespace {

using json::Value;
using namespace std::chrono_literals;

/// The path of the window that holds the element, where an action's effect is most likely to show.
std::string windowPath(const std::string& path) {
  // Titles are percent-encoded, so a slash always separates.
  std::size_t segments = path.starts_with("AXSystemWide") ? 3 : 2;
  std::size_t end = 0;
  while (segments-- > 0 && end != std::string::npos) end = path.find('/', end + (end > 0 ? 1 : 0));
  return path.substr(0, end);
}

std::expected<Value, LinkError> readTree(const ToolCall& call, const std::string& path, int nodes) {
  auto answer =
      call.post("/ax/snapshot",
                {{"element_path", path}, {"max_nodes", nodes}, {"include_offscreen", true}}, 5s);
  if (!answer) return std::unexpected(std::move(answer.error()));
  const Value* tree = objectMember(*answer, "tree");
  return tree ? *tree : Value();
}

/// The same path with the window as it is titled now, when its application has no other.
std::optional<std::string> retitled(const ToolCall& call, const std::string& path) {
  const std::string window = windowPath(path);
  const std::string application = window.substr(0, window.rfind('/'));
  if (!window.contains("[title=") || application == window) return std::nullopt;
  const auto tree = readTree(call, application, 16);
  const Value* children = tree ? tree->find("children") : nullptr;
  const json::Array* windows = children ? children->asArray() : nullptr;
  const std::string* now =
      windows && windows->size() == 1 ? textMember(windows->front(), "path") : nullptr;
  return now ? std::optional(*now + path.substr(window.size())) : std::nullopt;
}

/// An element that was acted on: what was done to it may have changed the title of its window, as
/// that of a document that is not saved any more, and the title is part of its path.
std::expected<Value, LinkError> readElement(const ToolCall& call, const std::string& path) {
  auto element = readTree(call, path, 1);
  if (element || element.error().kind != LinkError::Kind::elementGone) return element;
  const auto now = retitled(call, path);
  return now ? readTree(call, *now, 1) : element;
}

ToolResult focus(const ToolCall& call, const std::string& path) {
  std::string now;
  LinkError problem;
  const bool focused = becomes(call, effectBound, [&] {
    const auto element = readElement(call, path);
    if (!element) {
      problem = element.error();
      return false;
    }
    problem = {};
    now = elementLine(*element, call.refs, false, 80);
    const Value* state = element->find("focused");
    return state && state->asBool() == true;
  });
  if (focused) return outcomeResult(Outcome::confirmed, now);
  if (!problem.message.empty()) return outcomeResult(Outcome::notVerifiable, problem.message);
  return outcomeResult(Outcome::unchanged, "the element does not say that it has the focus (" +
                                               now + "); some only take it by a click");
}

}  // namespace

ToolResult elementAction(const ToolCall& call) {
  auto path = call.elementPath();
  if (!path) return std::move(path.error());
  const std::string& action = *call.text("action");
  const auto act = [&] {
    return call.perform("/ax/action", {{"element_path", *path}, {"action", action}});
  };
  if (action != "focus") return actAndCompare(call, {.element = windowPath(*path)}, act);
  if (auto done = act(); !done) return failed(done.error());
  return focus(call, *path);
}

ToolResult setValue(const ToolCall& call) {
  auto path = call.elementPath();
  if (!path) return std::move(path.error());
  const std::string& value = *call.text("value");
  const auto before = readElement(call, *path);
  if (auto done = call.post("/ax/set-value", {{"element_path", *path}, {"value", value}}); !done)
    return failed(done.error());
  std::string now;
  std::string problem;
  const bool same = becomes(call, effectBound, [&] {
    const auto element = readElement(call, *path);
    problem = element ? "" : element.error().message;
    if (!element) return false;
    const std::string* text = textMember(*element, "value");
    now = text ? *text : "";
    return now == value;
  });
  if (same) return outcomeResult(Outcome::confirmed, "the value is now " + quoted(now, 80));
  if (!problem.empty()) return outcomeResult(Outcome::notVerifiable, problem);
  const std::string* old = before ? textMember(*before, "value") : nullptr;
  if (old && *old == now)
    return outcomeResult(Outcome::unchanged, "the value is still " + quoted(now, 80));
  return outcomeResult(Outcome::notVerifiable,
                       fmt::format("the value reads {} instead of what was set; the element may "
                                   "limit or reformat it, or hide it",
                                   quoted(now, 80)));
}

}  // namespace vesko::mcp
