#include "helper/mcp/schema_check.h"

#include <fmt/format.h>

#include <algorithm>

#include "helper/mcp/json_rpc.h"
#include "helper/mcp/tool_result.h"

namespace vesko::mcp {
namespace {

using json::Value;

std::optional<double> limit(const Value& schema, std::string_view key) {
  const Value* value = schema.find(key);
  return value ? value->asDouble() : std::nullopt;
}

/// " from 1 to 2000", as far as the schema says.
std::string range(const Value& schema, std::string_view least, std::string_view most) {
  std::string text;
  if (const auto from = limit(schema, least)) text += fmt::format(" from {}", *from);
  if (const auto to = limit(schema, most))
    text += fmt::format(" {} {}", text.empty() ? "up to" : "to", *to);
  return text;
}

std::string counted(const std::string& limits, std::string_view what) {
  return limits.empty() ? "" : fmt::format(" of{} {}", limits, what);
}

bool within(const Value& schema, std::string_view least, std::string_view most, double number) {
  const auto from = limit(schema, least);
  const auto to = limit(schema, most);
  return (!from || number >= *from) && (!to || number <= *to);
}

std::string words(const json::Array& values) {
  std::string text;
  for (const Value& value : values)
    text += (text.empty() ? "" : ", ") + (value.asString() ? *value.asString() : "?");
  return text;
}

/// Lengths count characters, as JSON Schema says.
std::size_t length(const std::string& text) {
  return static_cast<std::size_t>(
      std::ranges::count_if(text, [](char c) { return (c & 0xC0) != 0x80; }));
}

/// What stands between a key and the problem of its value.
std::string_view joint(std::string_view problem) {
  if (problem.starts_with('[')) return "";
  return problem.starts_with("expected ") || problem.starts_with("unknown ") ? ": " : ".";
}

std::optional<std::string> checkObject(const Value& schema, const Value& value) {
  if (!value.asObject()) return "expected an object";
  const Value* properties = objectMember(schema, "properties");
  if (const Value* required = schema.find("required"); required && required->asArray()) {
    for (const Value& key : *required->asArray()) {
      if (key.asString() && !value.find(*key.asString())) return *key.asString() + ": missing";
    }
  }
  for (const auto& [key, member] : *value.asObject()) {
    const Value* expected = properties ? properties->find(key) : nullptr;
    if (!expected) {
      std::string known;
      for (const auto& entry : properties ? *properties->asObject() : json::Object())
        known += (known.empty() ? "" : ", ") + entry.first;
      return fmt::format("unknown argument {}; there are: {}", quoted(key, 60),
                         known.empty() ? "none" : known);
    }
    if (auto problem = checkSchema(*expected, member)) {
      return fmt::format("{}{}{}", key, joint(*problem), *problem);
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> checkSchema(const Value& schema, const Value& value) {
  const std::string* type = textMember(schema, "type");
  const std::string_view kind = type ? std::string_view(*type) : std::string_view();
  if (const Value* allowed = schema.find("enum"); allowed && allowed->asArray()) {
    const auto matches = [&](const Value& word) {
      return word.asString() && value.asString() && *word.asString() == *value.asString();
    };
    if (!std::ranges::any_of(*allowed->asArray(), matches))
      return "expected one of " + words(*allowed->asArray());
    return std::nullopt;
  }
  if (kind == "object") return checkObject(schema, value);
  if (kind == "string") {
    if (!value.asString() ||
        !within(schema, "minLength", "maxLength", static_cast<double>(length(*value.asString()))))
      return "expected a text" + counted(range(schema, "minLength", "maxLength"), "characters");
  } else if (kind == "integer") {
    const auto number = value.asInteger();
    if (!number || !within(schema, "minimum", "maximum", static_cast<double>(*number)))
      return "expected an integer" + range(schema, "minimum", "maximum");
  } else if (kind == "number") {
    const auto number = value.asDouble();
    if (!number || !within(schema, "minimum", "maximum", *number))
      return "expected a number" + range(schema, "minimum", "maximum");
  } else if (kind == "boolean") {
    if (!value.asBool()) return "expected true or false";
  } else if (kind == "array") {
    const json::Array* elements = value.asArray();
    if (!elements || !within(schema, "minItems", "maxItems", static_cast<double>(elements->size())))
      return "expected an array" + counted(range(schema, "minItems", "maxItems"), "elements");
    const Value* items = objectMember(schema, "items");
    for (std::size_t i = 0; items && i < elements->size(); ++i) {
      if (auto problem = checkSchema(*items, (*elements)[i]))
        return fmt::format("[{}]{}{}", i, joint(*problem), *problem);
    }
  }
  return std::nullopt;
}

}  // namespace vesko::mcp
