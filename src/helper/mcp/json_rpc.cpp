#include "helper/mcp/json_rpc.h"

namespace vesko::mcp {
namespace {

using json::Value;

std::string message(const json::Object& members) {
  // Everything comes from valid texts and finite numbers.
  return json::serialize(members).value_or(
      R"({"jsonrpc":"2.0","id":null,"error":{"code":-32603,"message":"internal error"}})");
}

void dropNulls(Value& value) {
  json::Object* members = value.asObject();
  if (!members) return;
  std::erase_if(*members, [](const json::Member& member) { return member.second.isNull(); });
  for (auto& [key, member] : *members) dropNulls(member);
}

}  // namespace

const Value* objectMember(const Value& value, std::string_view key) {
  const Value* member = value.find(key);
  return member && member->asObject() ? member : nullptr;
}

const std::string* textMember(const Value& value, std::string_view key) {
  const Value* member = value.find(key);
  return member ? member->asString() : nullptr;
}

std::expected<std::optional<RpcMessage>, BadMessage> readMessage(const Value& message) {
  const Value* id = message.find("id");
  const bool usable = id && (id->asString() || id->asDouble());
  const auto bad = [&](std::string text) {
    return std::unexpected(
        BadMessage{usable ? *id : Value(), {RpcErrorCode::invalidRequest, std::move(text)}});
  };
  if (!message.asObject()) return bad("a message is an object");
  const std::string* version = textMember(message, "jsonrpc");
  if (!version || *version != "2.0") return bad("jsonrpc: expected \"2.0\"");
  const std::string* method = textMember(message, "method");
  if (!method) {
    if (!message.find("method") && (message.find("result") || message.find("error")))
      return std::optional<RpcMessage>();
    return bad("method: expected a string");
  }
  if (id && !usable) return bad("id: expected a string or a number");
  const Value* params = message.find("params");
  if (params && !params->isNull() && !params->asObject()) {
    return std::unexpected(BadMessage{usable ? *id : Value(),
                                      {RpcErrorCode::invalidParams, "params: expected an object"}});
  }
  RpcMessage read{.id = std::nullopt, .method = *method, .params = params ? *params : Value()};
  if (id) read.id = *id;
  dropNulls(read.params);
  return read;
}

std::string resultMessage(const Value& id, const Value& result) {
  return message({{"jsonrpc", "2.0"}, {"id", id}, {"result", result}});
}

std::string errorMessage(const Value& id, const RpcError& error) {
  json::Object body{{"code", static_cast<int>(error.code)}, {"message", error.message}};
  if (error.data) body.emplace_back("data", *error.data);
  return message({{"jsonrpc", "2.0"}, {"id", id}, {"error", std::move(body)}});
}

std::string notificationMessage(std::string_view method, const Value& params) {
  return message({{"jsonrpc", "2.0"}, {"method", method}, {"params", params}});
}

}  // namespace vesko::mcp
