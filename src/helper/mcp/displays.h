// Where the displays lie, in screen points. Any thread.
#pragma once

#include <expected>
#include <string>
#include <vector>

#include "base/geometry.h"
#include "helper/mcp/tool.h"

namespace vesko::mcp {

struct Display {
  std::string id;
  Rect area;
  bool primary = false;
};

std::expected<std::vector<Display>, LinkError> readDisplays(const ToolCall& call);

}  // namespace vesko::mcp
