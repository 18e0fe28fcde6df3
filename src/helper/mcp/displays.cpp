#include "helper/mcp/displays.h"

#include "base/json_record.h"

namespace vesko::mcp {
namespace {

/// A display as /displays tells of it.
struct DisplayRecord {
  std::string id;
  double width = 0;
  double height = 0;
  std::optional<bool> primary;
  std::optional<double> x;
  std::optional<double> y;

  static constexpr auto jsonFields() {
    using R = DisplayRecord;
    return std::tuple{json::field("id", &R::id),         json::field("width", &R::width),
                      json::field("height", &R::height), json::field("primary", &R::primary),
                      json::field("x", &R::x),           json::field("y", &R::y)};
  }
};

}  // namespace

std::expected<std::vector<Display>, LinkError> readDisplays(const ToolCall& call) {
  auto answer = call.post("/displays", {});
  if (!answer) return std::unexpected(std::move(answer.error()));
  std::vector<Display> displays;
  const json::Value* list = answer->find("displays");
  for (const json::Value& entry : list && list->asArray() ? *list->asArray() : json::Array()) {
    DisplayRecord record;
    if (!json::decodeInto(entry, record)) continue;
    displays.push_back(
        {.id = std::move(record.id),
         .area = {record.x.value_or(0), record.y.value_or(0), record.width, record.height},
         .primary = record.primary.value_or(false)});
  }
  return displays;
}

}  // namespace vesko::mcp
