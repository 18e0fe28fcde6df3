// What a tool is: its words for clients, and the function behind it.
#pragma once

#include <chrono>
#include <expected>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "helper/mcp/call_context.h"
#include "helper/mcp/companion_link.h"
#include "helper/mcp/element_refs.h"
#include "helper/mcp/tool_result.h"

namespace vesko::mcp {

/// One call: its arguments fit the tool's schema. Borrows everything.
struct ToolCall {
  const json::Value& arguments;
  CompanionLink& link;
  ElementRefs& refs;
  CallContext& context;

  // What the client gave; nothing, or the default, without it.
  const std::string* text(std::string_view key) const;
  std::optional<double> number(std::string_view key) const;
  std::int64_t integer(std::string_view key, std::int64_t otherwise) const;
  bool flag(std::string_view key) const;

  std::expected<json::Value, LinkError> post(
      const std::string& path, json::Object body,
      std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;

  /// A call whose only result is that it was done.
  std::expected<void, LinkError> perform(const std::string& path, json::Object body) const;

  /// The path of the element that the argument `key` names.
  std::expected<std::string, ToolResult> elementPath(std::string_view key = "element") const;
};

/// An error's text as the answer.
ToolResult failed(const LinkError& error);

struct ToolEntry {
  std::string_view name;
  std::string_view title;
  std::string_view description;
  std::string_view inputSchema;   ///< JSON
  std::string_view outputSchema;  ///< JSON; empty when the answer is no data
  bool acts;                      ///< changes the desktop: such calls run one after another
  bool destructive;               ///< may lose what the user has
  bool idempotent;                ///< doing it twice is like doing it once
  ToolResult (*run)(const ToolCall& call);
};

/// In the order in which clients see them.
std::span<const ToolEntry> toolTable();

// Reading.
ToolResult desktopSnapshot(const ToolCall& call);
ToolResult findElements(const ToolCall& call);
ToolResult waitForElement(const ToolCall& call);
ToolResult listWindows(const ToolCall& call);
ToolResult listDisplays(const ToolCall& call);
ToolResult captureScreen(const ToolCall& call);
ToolResult getClipboard(const ToolCall& call);
ToolResult getPhoto(const ToolCall& call);
ToolResult status(const ToolCall& call);
// Elements.
ToolResult elementAction(const ToolCall& call);
ToolResult setValue(const ToolCall& call);
// Applications and windows.
ToolResult launchApplication(const ToolCall& call);
ToolResult activateApplication(const ToolCall& call);
ToolResult quitApplication(const ToolCall& call);
ToolResult controlWindow(const ToolCall& call);
// Input.
ToolResult click(const ToolCall& call);
ToolResult movePointer(const ToolCall& call);
ToolResult drag(const ToolCall& call);
ToolResult scroll(const ToolCall& call);
ToolResult typeText(const ToolCall& call);
ToolResult pressKey(const ToolCall& call);
ToolResult setClipboard(const ToolCall& call);

}  // namespace vesko::mcp
