// An element as it is now, and the place where the pointer reaches it. Any thread.
#pragma once

#include <expected>
#include <string>

#include "base/geometry.h"
#include "helper/mcp/tool.h"

namespace vesko::mcp {

/// The path of the window that holds the element, where an action's effect is most likely to show.
std::string windowPath(const std::string& path);

/// The element itself, without what it holds. It is found also when what was done to it has changed
/// the title of its window, as that of a document that is not saved any more: the title is part of
/// its path.
std::expected<json::Value, LinkError> readElement(const ToolCall& call, const std::string& path);

/// The element's middle, on a display and not behind another window. Brings the element's window to
/// the front when another one lies over it. The error says what to do instead.
std::expected<Point, ToolResult> reachablePoint(const ToolCall& call, const std::string& path);

}  // namespace vesko::mcp
