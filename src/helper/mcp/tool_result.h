// What a tool call answers, and the bounds that keep every answer below a megabyte. Any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/json.h"

namespace vesko::mcp {

/// Of a whole answer, as it is sent.
inline constexpr std::size_t maxResultBytes = 1'000'000;
/// Of the texts of an answer, as they are sent.
inline constexpr std::size_t maxTextBytes = 400'000;
/// Of a picture in base64.
inline constexpr std::size_t maxImageBytes = 980'000;

struct ToolResult {
  struct Image {
    std::string base64;
    std::string mimeType;
  };

  std::string text;
  std::optional<Image> image = {};
  std::optional<json::Value> structured = {};
  bool isError = false;

  static ToolResult failure(std::string text) { return {.text = std::move(text), .isError = true}; }
  json::Object toJson(bool withStructured) &&;
};

/// How many bytes the text takes within a JSON string.
std::size_t jsonBytes(std::string_view text);

/// Whole lines of the text that take at most `limit` bytes in JSON. `rest` receives the number of
/// lines left out.
std::string_view wholeLines(std::string_view text, std::size_t limit, std::size_t& rest);

/// Valid UTF-8 of at most `limit` bytes in JSON.
std::string_view jsonPrefix(std::string_view text, std::size_t limit);

/// One line, in quotes, with at most `limit` characters; says how many there are when it is cut.
std::string quoted(std::string_view text, std::size_t limit);

}  // namespace vesko::mcp
