// The tools for applications and their windows.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "helper/mcp/outcome.h"

namespace vesko::mcp {
namespace {

using json::Value;
using namespace std::chrono_literals;

constexpr std::chrono::milliseconds launchBound = 5s;
constexpr std::chrono::milliseconds quitBound = 2s;
constexpr std::chrono::milliseconds applicationTime = 60s;

std::expected<json::Object, ToolResult> application(const ToolCall& call) {
  json::Object request;
  for (const char* key : {"bundle_id", "name"}) {
    if (const std::string* text = call.text(key)) request.emplace_back(key, *text);
  }
  if (request.size() == 1) return request;
  return std::unexpected(ToolResult::failure("Give exactly one of bundle_id and name."));
}

const WindowState* windowIn(const std::vector<WindowState>& windows, std::int64_t id) {
  const auto found = std::ranges::find(windows, id, &WindowState::id);
  return found == windows.end() ? nullptr : &*found;
}

const WindowState* focusedIn(const std::vector<WindowState>& windows) {
  const auto found = std::ranges::find(windows, true, &WindowState::focused);
  return found == windows.end() ? nullptr : &*found;
}

bool near(double a, double b) {
  return std::abs(a - b) <= 1;
}

}  // namespace

ToolResult launchApplication(const ToolCall& call) {
  auto request = application(call);
  if (!request) return std::move(request.error());
  const Scene before = readScene(call, {.windowsOnly = true});
  call.context.progress(1, std::nullopt, "starting");
  auto answer = call.post("/app/launch", std::move(*request), applicationTime);
  if (!answer) return failed(answer.error());
  const Value* pid = answer->find("pid");
  const std::int64_t process = pid ? pid->asInteger().value_or(0) : 0;
  Scene after;
  std::vector<std::string> said;
  int turn = 0;
  becomes(call, launchBound, [&] {
    after = readScene(call, {.windowsOnly = true});
    said = changes(before, after, false);
    if (said.empty()) call.context.progress(1 + ++turn, std::nullopt, "waiting for its windows");
    return !said.empty();
  });
  std::string detail = fmt::format("it runs as process {}", process);
  for (const std::string& one : said) detail += "; " + one;
  if (said.empty())
    detail += "; " + (after.problem.empty()
                          ? "no new window shows; it may have been open already: see list_windows, "
                            "or use activate_application"
                          : after.problem);
  ToolResult result =
      outcomeResult(said.empty() ? Outcome::notVerifiable : Outcome::confirmed, std::move(detail));
  result.structured->asObject()->emplace_back("pid", process);
  return result;
}

ToolResult activateApplication(const ToolCall& call) {
  auto request = application(call);
  if (!request) return std::move(request.error());
  auto answer = call.post("/app/activate", *request, applicationTime);
  if (!answer) return failed(answer.error());
  const auto own = readWindows(call, std::move(*request));
  if (!own) return outcomeResult(Outcome::notVerifiable, own.error().message);
  if (const WindowState* front = focusedIn(*own))
    return outcomeResult(Outcome::confirmed, "in front now: " + front->describe());
  const auto all = readWindows(call);
  const WindowState* other = all ? focusedIn(*all) : nullptr;
  return outcomeResult(Outcome::notVerifiable,
                       other ? "another window is in front: " + other->describe()
                             : "no window of it says that it has the keyboard");
}

ToolResult quitApplication(const ToolCall& call) {
  auto request = application(call);
  if (!request) return std::move(request.error());
  const auto before = readWindows(call, *request);
  auto answer = call.post("/app/quit", *request, applicationTime);
  if (!answer) return failed(answer.error());
  std::expected<std::vector<WindowState>, LinkError> after;
  const bool gone = becomes(call, quitBound, [&] {
    after = readWindows(call, *request);
    if (!after) return after.error().kind == LinkError::Kind::noApplication;
    return after->empty() && before && !before->empty();
  });
  if (gone)
    return outcomeResult(Outcome::confirmed,
                         after ? "its windows are gone" : "the application has ended");
  if (!after) return outcomeResult(Outcome::notVerifiable, after.error().message);
  std::string detail = "it took the request to quit, but ";
  if (after->empty())
    return outcomeResult(Outcome::notVerifiable, detail + "had no window to see it by");
  detail += "still has windows";
  for (const WindowState& window : *after) {
    if (!before || !windowIn(*before, window.id)) detail += "; window opened: " + window.describe();
  }
  return outcomeResult(
      Outcome::notVerifiable,
      detail + "; it may be asking about unsaved changes: take a desktop_snapshot");
}

ToolResult controlWindow(const ToolCall& call) {
  const std::int64_t id = call.integer("window_id", 0);
  const std::string& action = *call.text("action");
  json::Object request{{"window_id", id}};
  for (const auto& [wanted, keys] :
       {std::pair{"move", std::pair{"x", "y"}}, std::pair{"resize", std::pair{"w", "h"}}}) {
    if (action != wanted) continue;
    const auto first = call.number(keys.first);
    const auto second = call.number(keys.second);
    if (!first || !second)
      return ToolResult::failure(
          fmt::format("The action {} needs {} and {}.", action, keys.first, keys.second));
    request.emplace_back(keys.first, *first);
    request.emplace_back(keys.second, *second);
  }
  const auto before = readWindows(call);
  const WindowState* old = before ? windowIn(*before, id) : nullptr;
  auto answer = call.post("/window/" + action, std::move(request));
  if (!answer) return failed(answer.error());

  std::string now;
  std::string problem;
  const bool done = becomes(call, effectBound, [&]() -> bool {
    const auto windows = readWindows(call);
    problem = windows ? "" : windows.error().message;
    const WindowState* window = windows ? windowIn(*windows, id) : nullptr;
    if (!window) {
      if (windows) problem = "the window is not in the list any more";
      return false;
    }
    now = window->describe();
    if (action == "focus") return window->focused;
    if (action == "minimize") return window->minimized;
    if (action == "move")
      return near(window->frame.x, *call.number("x")) && near(window->frame.y, *call.number("y"));
    if (action == "resize")
      return near(window->frame.w, *call.number("w")) && near(window->frame.h, *call.number("h"));
    return old && old->frame != window->frame;
  });
  if (done) return outcomeResult(Outcome::confirmed, now);
  if (!problem.empty()) return outcomeResult(Outcome::notVerifiable, problem);
  if (old && old->describe() == now)
    return outcomeResult(Outcome::unchanged, "the window is as before: " + now);
  return outcomeResult(Outcome::notVerifiable,
                       "the window did not take exactly what was asked; it is now: " + now);
}

}  // namespace vesko::mcp
