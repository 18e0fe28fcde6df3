// Which revision of the Model Context Protocol a message is in, and the answers that no tool is
// needed for (https://modelcontextprotocol.io/specification). One thread.
//
// Up to 2025-11-25 a client begins with initialize, and the revision agreed there holds from then
// on. From 2026-07-28 on every request names its revision itself; nothing is remembered of it. Both
// may come on the same stream.
#pragma once

#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "helper/mcp/json_rpc.h"
#include "helper/mcp/tool.h"

namespace vesko::mcp {

/// In order of time.
enum class Revision { v2024_11_05, v2025_03_26, v2025_06_18, v2025_11_25, v2026_07_28 };

inline constexpr Revision latestHandshake = Revision::v2025_11_25;
inline constexpr Revision latestRevision = Revision::v2026_07_28;

std::string_view wordOf(Revision revision);

/// A tool call whose arguments fit.
struct PreparedCall {
  const ToolEntry* tool;
  json::Value arguments;
};

class Protocol {
 public:
  explicit Protocol(std::string version) : version_(std::move(version)) {}

  /// Whether several messages may come in one array.
  bool batches() const { return agreed_ == Revision::v2025_03_26; }

  std::expected<Revision, RpcError> revisionOf(const RpcMessage& message) const;

  /// Every request but tools/call and subscriptions/listen.
  std::expected<json::Value, RpcError> answer(const RpcMessage& request, Revision revision);

  /// The answer at once, when the arguments are such that an assistant can put them right.
  std::expected<std::variant<PreparedCall, ToolResult>, RpcError> prepareCall(
      const RpcMessage& request) const;

  /// The whole message that answers a call; never more than maxResultBytes.
  std::string callAnswer(const json::Value& id, ToolResult result, Revision revision) const;

 private:
  json::Value serverInfo() const;
  /// A result with what its revision asks of every result.
  json::Object complete(json::Object result, Revision revision) const;
  std::expected<json::Value, RpcError> initialize(const json::Value& params);
  json::Value listTools(Revision revision) const;

  const std::string version_;
  std::optional<Revision> agreed_;
};

}  // namespace vesko::mcp
