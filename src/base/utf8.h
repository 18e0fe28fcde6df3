// UTF-8 validation and conversion (RFC 3629: no overlong forms, no surrogates, up to U+10FFFF).
// Any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vesko {

bool isValidUtf8(std::string_view bytes);

/// Decodes the whole text, or nothing when it is not valid UTF-8.
std::optional<std::u32string> decodeUtf8(std::string_view bytes);

void appendUtf8(std::string& out, char32_t codePoint);

/// Cuts to at most `maxCodePoints` code points without splitting one. `text` is valid UTF-8.
std::string_view utf8Prefix(std::string_view text, std::size_t maxCodePoints);

}  // namespace vesko
