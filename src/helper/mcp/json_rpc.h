// JSON-RPC 2.0 messages (https://www.jsonrpc.org/specification) as they are read from and written
// to lines. Any thread.
#pragma once

#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include "base/json.h"

namespace vesko::mcp {

enum class RpcErrorCode : int {
  parseError = -32700,
  invalidRequest = -32600,
  methodNotFound = -32601,
  invalidParams = -32602,
  internalError = -32603,
  unsupportedProtocolVersion = -32022,
};

struct RpcError {
  RpcErrorCode code = RpcErrorCode::internalError;
  std::string message = {};
  std::optional<json::Value> data = {};
};

/// A request, or a notification when it has no id.
struct RpcMessage {
  std::optional<json::Value> id;  ///< a text or a number
  std::string method;
  /// An object, or null when there are none. Members that are null, as many clients write those
  /// that they leave out, are not in it, nor in the objects that it holds.
  json::Value params;

  bool isNotification() const { return !id; }
};

struct BadMessage {
  json::Value id;  ///< null when the message has no usable one
  RpcError error;
};

/// What one element of a line says. Nothing for a response, which no request of ours has asked for.
std::expected<std::optional<RpcMessage>, BadMessage> readMessage(const json::Value& message);

/// A member of an object that is an object itself; null otherwise.
const json::Value* objectMember(const json::Value& value, std::string_view key);
/// A member that is a text; null otherwise.
const std::string* textMember(const json::Value& value, std::string_view key);

// One message each, without a newline.
std::string resultMessage(const json::Value& id, const json::Value& result);
std::string errorMessage(const json::Value& id, const RpcError& error);
std::string notificationMessage(std::string_view method, const json::Value& params);

}  // namespace vesko::mcp
