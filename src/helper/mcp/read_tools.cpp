// The tools that look at elements, windows, the clipboard and photos, and change nothing.
#include <fmt/format.h>

#include <algorithm>

#include "helper/mcp/json_rpc.h"
#include "helper/mcp/outcome.h"
#include "helper/mcp/snapshot_text.h"

namespace vesko::mcp {
namespace {

using json::Value;
using namespace std::chrono_literals;

constexpr std::int64_t defaultNodes = 400;
constexpr std::int64_t defaultFound = 20;
constexpr std::size_t maxWindows = 400;
constexpr std::size_t valueLimit = 200;
/// Base64 makes four bytes of three.
constexpr std::int64_t maxPhotoBytes = 700'000;

/// The part of find_elements' arguments that /ax/find takes as it is.
json::Object findRequest(const ToolCall& call, std::int64_t limit) {
  json::Object request{{"limit", limit}};
  for (const char* key : {"bundle_id", "role", "title", "value_contains", "near_point"}) {
    if (const Value* value = call.arguments.find(key)) request.emplace_back(key, *value);
  }
  return request;
}

struct Found {
  json::Array elements = {};
  std::string missed = {};  ///< why there may be more than could be read; empty when there is not
};

ToolResult describeFound(const ToolCall& call, const Found& result, std::int64_t limit) {
  const json::Array& elements = result.elements;
  std::string text;
  json::Array found;
  for (const Value& element : elements) {
    text += elementLine(element, call.refs, call.flag("paths"), valueLimit) + '\n';
    json::Object entry;
    for (const char* key : {"role", "title", "value", "enabled", "focused", "frame"}) {
      const Value* value = element.find(key);
      if (!value) continue;
      if (const std::string* whole = value->asString())
        entry.emplace_back(key, jsonPrefix(*whole, 1000));
      else
        entry.emplace_back(key, *value);
    }
    if (const std::string* path = textMember(element, "path")) {
      entry.emplace_back("element", call.refs.refOf(*path));
      if (call.flag("paths")) entry.emplace_back("path", *path);
    }
    found.emplace_back(std::move(entry));
  }
  if (elements.empty() && result.missed.empty())
    text =
        "No element matches. Titles and values match by containing the text in any case; leave "
        "out criteria, or look with desktop_snapshot.\n";
  if (std::cmp_greater_equal(elements.size(), limit))
    text += fmt::format("There may be more than limit={}.\n", limit);
  if (!result.missed.empty())
    text += (elements.empty() ? "Nothing was found, but " : "There may be more: ") + result.missed +
            "\n";
  std::size_t rest = 0;
  text = wholeLines(text, maxTextBytes, rest);
  return {.text = std::move(text), .structured = json::Object{{"elements", std::move(found)}}};
}

std::expected<Found, LinkError> find(const ToolCall& call, std::int64_t limit) {
  auto answer = call.post("/ax/find", findRequest(call, limit));
  if (!answer) return std::unexpected(std::move(answer.error()));
  Found found;
  const Value* elements = answer->find("elements");
  if (elements && elements->asArray()) found.elements = *elements->asArray();
  if (const std::string* reason = textMember(*answer, "incomplete"))
    found.missed = *reason == "size" ? "the application has more elements than were looked at."
                                     : "the application stopped answering before all was read.";
  return found;
}

}  // namespace

ToolResult desktopSnapshot(const ToolCall& call) {
  const std::int64_t maxNodes = call.integer("max_nodes", defaultNodes);
  json::Object request{{"max_nodes", maxNodes},
                       {"include_offscreen", call.flag("include_offscreen")}};
  if (call.text("element")) {
    auto path = call.elementPath();
    if (!path) return std::move(path.error());
    request.emplace_back("element_path", std::move(*path));
  } else {
    const std::string* bundle = call.text("bundle_id");
    const std::string* scope = call.text("scope");
    request.emplace_back("scope", scope ? *scope : bundle ? "app" : "frontmost_window");
    if (bundle) request.emplace_back("bundle_id", *bundle);
  }
  auto answer = call.post("/ax/snapshot", std::move(request));
  if (!answer) return failed(answer.error());
  const std::string* format = call.text("format");
  if (format && *format == "json") {
    // In JSON text every quote takes two bytes.
    std::string text = snapshotJson(*answer, maxTextBytes);
    return {.text = std::move(text)};
  }
  return {.text = snapshotText(
              *answer, call.refs,
              {.maxNodes = static_cast<std::size_t>(maxNodes), .paths = call.flag("paths")})};
}

ToolResult findElements(const ToolCall& call) {
  const std::int64_t limit = call.integer("limit", defaultFound);
  const auto found = find(call, limit);
  return found ? describeFound(call, *found, limit) : failed(found.error());
}

ToolResult waitForElement(const ToolCall& call) {
  const std::int64_t limit = call.integer("limit", 5);
  const auto bound = std::chrono::seconds(call.integer("timeout", 10));
  const bool gone = call.flag("gone");
  const auto start = std::chrono::steady_clock::now();
  for (int turn = 1;; ++turn) {
    auto found = find(call, limit);
    using Kind = LinkError::Kind;
    if (!found && found.error().kind != Kind::noApplication && found.error().kind != Kind::silent)
      return failed(found.error());
    // An application that does not run has no elements; one that is starting does not answer yet.
    const bool there = found && !found->elements.empty();
    const bool known =
        there || (found ? found->missed.empty() : found.error().kind == Kind::noApplication);
    if (known && there != gone)
      return describeFound(call, found ? std::move(*found) : Found(), limit);
    const auto passed = std::chrono::steady_clock::now() - start;
    const std::string_view state = !known ? "it is not known whether the element is there"
                                   : gone ? "the element is still there"
                                          : "there is no such element";
    if (passed >= bound) {
      ToolResult result = found ? describeFound(call, *found, limit) : failed(found.error());
      result.text = fmt::format("After {} s {}.\n", bound.count(), state) + result.text;
      result.isError = true;
      return result;
    }
    call.context.progress(std::chrono::duration<double>(passed).count(),
                          static_cast<double>(bound.count()), std::string(state));
    if (!call.context.wait(turn < 5 ? 100ms : 300ms)) return ToolResult::failure("cancelled");
  }
}

ToolResult listWindows(const ToolCall& call) {
  json::Object filter;
  if (const std::string* bundle = call.text("bundle_id")) filter.emplace_back("bundle_id", *bundle);
  auto windows = readWindows(call, std::move(filter));
  if (!windows) return failed(windows.error());
  const std::size_t all = windows->size();
  windows->resize(std::min(all, maxWindows));
  std::string text;
  json::Array list;
  for (const WindowState& window : *windows) {
    text += window.describe() + '\n';
    list.emplace_back(json::Object{{"window_id", window.id},
                                   {"bundle_id", jsonPrefix(window.bundleId, 300)},
                                   {"title", jsonPrefix(window.title, 300)},
                                   {"x", window.frame.x},
                                   {"y", window.frame.y},
                                   {"w", window.frame.w},
                                   {"h", window.frame.h},
                                   {"focused", window.focused},
                                   {"minimized", window.minimized}});
  }
  if (all == 0) text = "No windows.\n";
  if (all > maxWindows)
    text += fmt::format("{} more windows are left out; pass bundle_id.\n", all - maxWindows);
  return {.text = std::move(text), .structured = json::Object{{"windows", std::move(list)}}};
}

ToolResult listDisplays(const ToolCall& call) {
  auto answer = call.post("/displays", {});
  if (!answer) return failed(answer.error());
  const Value* list = answer->find("displays");
  std::string text;
  for (const Value& display : list && list->asArray() ? *list->asArray() : json::Array()) {
    const auto plain = [&](std::string_view key) {
      const Value* value = display.find(key);
      const std::string* words = value ? value->asString() : nullptr;
      return words ? *words : value ? json::serialize(*value).value_or("?") : "?";
    };
    text +=
        fmt::format("{} {}x{} points, {} pixels for a point{}", plain("id"), plain("width"),
                    plain("height"), plain("scale"), plain("primary") == "true" ? ", main" : "");
    if (display.find("x")) text += fmt::format(", at {},{}", plain("x"), plain("y"));
    text += '\n';
  }
  return {.text = text.empty() ? "No displays.\n" : std::move(text),
          .structured = json::Object{{"displays", list ? *list : Value(json::Array())}}};
}

ToolResult getClipboard(const ToolCall& call) {
  auto answer = call.post("/clipboard/get", {});
  if (!answer) return failed(answer.error());
  const std::string* text = textMember(*answer, "text");
  if (!text) return ToolResult::failure("The companion's answer holds no text.");
  const std::string_view shown = jsonPrefix(*text, maxTextBytes);
  ToolResult result{.text = std::string(shown)};
  const bool cut = shown.size() < text->size();
  result.structured = json::Object{{"text", shown}, {"bytes", text->size()}, {"truncated", cut}};
  if (cut)
    result.text += fmt::format(
        "\n[the first {} of {} bytes; paste it where it is needed to use "
        "all of it]",
        shown.size(), text->size());
  return result;
}

ToolResult getPhoto(const ToolCall& call) {
  const std::string* uuid = call.text("uuid");
  const std::int64_t bytes = call.integer("max_bytes", maxPhotoBytes);
  auto answer = call.post("/photos/export", {{"uuid", *uuid}, {"maxBytes", bytes}}, 120s);
  if (!answer) return failed(answer.error());
  const std::string* data = textMember(*answer, "dataBase64");
  const std::string* type = textMember(*answer, "mimeType");
  if (!data || !type || data->size() > maxImageBytes)
    return ToolResult::failure("The companion's answer holds no picture of a usable size.");
  json::Object about;
  for (const char* key : {"filename", "mimeType", "width", "height", "transcoded"}) {
    if (const Value* value = answer->find(key)) about.emplace_back(key, *value);
  }
  ToolResult result{.text = json::serialize(about).value_or(""),
                    .image = ToolResult::Image{*data, *type}};
  result.structured = std::move(about);
  return result;
}

ToolResult status(const ToolCall& call) {
  auto helper = call.link.helperStatus(call.context);
  if (!helper) return failed(helper.error());
  auto companion = call.link.call(call.context, "/status", {}, 10s, "GET");
  if (!companion) return failed(companion.error());
  std::string text;
  for (const auto& [permission, state] :
       companion->asObject() ? *companion->asObject() : json::Object())
    text += fmt::format("{}: {}\n", permission, json::serialize(state).value_or("?"));
  json::Object about{{"permissions", std::move(*companion)}};
  if (const Value* version = helper->find("version")) {
    about.emplace_back("helper_version", *version);
    text += fmt::format("helper version: {}\n", json::serialize(*version).value_or("?"));
  }
  return {.text = std::move(text), .structured = std::move(about)};
}

}  // namespace vesko::mcp
