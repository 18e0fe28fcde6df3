// Judges a tool's arguments by its JSON Schema (2020-12), as far as our schemas go: type, enum,
// properties, required, additionalProperties false, items, and the limits of numbers, texts and
// arrays. Any thread.
#pragma once

#include <optional>
#include <string>

#include "base/json.h"

namespace vesko::mcp {

/// What does not fit, as "max_nodes: expected an integer from 1 to 2000"; nothing when all does.
/// Names keys and limits, never values.
std::optional<std::string> checkSchema(const json::Value& schema, const json::Value& value);

}  // namespace vesko::mcp
