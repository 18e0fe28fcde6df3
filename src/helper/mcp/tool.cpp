#include "helper/mcp/tool.h"

#include "helper/mcp/json_rpc.h"

namespace vesko::mcp {

const std::string* ToolCall::text(std::string_view key) const {
  return textMember(arguments, key);
}

std::optional<double> ToolCall::number(std::string_view key) const {
  const json::Value* value = arguments.find(key);
  return value ? value->asDouble() : std::nullopt;
}

std::int64_t ToolCall::integer(std::string_view key, std::int64_t otherwise) const {
  const json::Value* value = arguments.find(key);
  return value ? value->asInteger().value_or(otherwise) : otherwise;
}

bool ToolCall::flag(std::string_view key) const {
  const json::Value* value = arguments.find(key);
  return value && value->asBool() == true;
}

std::expected<json::Value, LinkError> ToolCall::post(const std::string& path, json::Object body,
                                                     std::chrono::milliseconds timeout) const {
  return link.call(context, path, std::move(body), timeout);
}

std::expected<void, LinkError> ToolCall::perform(const std::string& path, json::Object body) const {
  auto answer = post(path, std::move(body));
  if (!answer) return std::unexpected(std::move(answer.error()));
  return {};
}

std::expected<std::string, ToolResult> ToolCall::elementPath(std::string_view key) const {
  const std::string* element = text(key);
  auto path = refs.pathOf(element ? *element : "");
  if (!path) return std::unexpected(ToolResult::failure(std::move(path.error())));
  return std::move(*path);
}

ToolResult failed(const LinkError& error) {
  return ToolResult::failure(error.message);
}

}  // namespace vesko::mcp
