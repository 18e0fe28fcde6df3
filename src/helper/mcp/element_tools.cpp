// The tools that act on an element through accessibility.
#include <fmt/format.h>

#include "helper/mcp/element_place.h"
#include "helper/mcp/json_rpc.h"
#include "helper/mcp/outcome.h"
#include "helper/mcp/snapshot_text.h"

namespace vesko::mcp {
namespace {

using json::Value;
using namespace std::chrono_literals;

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
