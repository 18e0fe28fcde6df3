#include "helper/mcp/tool_result.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/utf8.h"

namespace vesko::mcp {
namespace {

std::size_t jsonBytes(char c) {
  if (c == '"' || c == '\\') return 2;
  if (static_cast<unsigned char>(c) >= 0x20) return 1;
  return c == '\n' || c == '\t' || c == '\r' || c == '\b' || c == '\f' ? 2 : 6;
}

bool continues(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

}  // namespace

json::Object ToolResult::toJson(bool withStructured) && {
  json::Array content;
  // The picture comes first: what is said about it follows it.
  if (image)
    content.emplace_back(json::Object{{"type", "image"},
                                      {"data", std::move(image->base64)},
                                      {"mimeType", std::move(image->mimeType)}});
  content.emplace_back(json::Object{{"type", "text"}, {"text", std::move(text)}});
  json::Object result{{"content", std::move(content)}};
  if (withStructured && structured)
    result.emplace_back("structuredContent", std::move(*structured));
  result.emplace_back("isError", isError);
  return result;
}

std::size_t jsonBytes(std::string_view text) {
  std::size_t bytes = 0;
  for (const char c : text) bytes += jsonBytes(c);
  return bytes;
}

std::string_view jsonPrefix(std::string_view text, std::size_t limit) {
  std::size_t end = 0;
  for (std::size_t bytes = 0; end < text.size(); ++end) {
    bytes += jsonBytes(text[end]);
    if (bytes > limit) break;
  }
  while (end > 0 && end < text.size() && continues(text[end])) --end;
  return text.substr(0, end);
}

std::string_view wholeLines(std::string_view text, std::size_t limit, std::size_t& rest) {
  const std::string_view prefix = jsonPrefix(text, limit);
  rest = 0;
  if (prefix.size() == text.size()) return text;
  const auto end = prefix.rfind('\n');
  const std::string_view kept = text.substr(0, end == std::string_view::npos ? 0 : end + 1);
  const std::string_view left = text.substr(kept.size());
  rest = static_cast<std::size_t>(std::ranges::count(left, '\n')) + (left.ends_with('\n') ? 0 : 1);
  return kept;
}

std::string quoted(std::string_view text, std::size_t limit) {
  const std::string_view shown = utf8Prefix(text, limit);
  std::string out = "\"";
  for (const char c : shown) {
    if (c == '"' || c == '\\')
      (out += '\\') += c;
    else if (c == '\n')
      out += "\\n";
    else
      out += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
  }
  out += '"';
  if (shown.size() < text.size()) {
    const auto all = std::ranges::count_if(text, [](char c) { return !continues(c); });
    out += fmt::format("…({} characters)", all);
  }
  return out;
}

}  // namespace vesko::mcp
