// Text helpers that the standard library lacks. All of them work on bytes and take ASCII white
// space only; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vesko {

/// Space, tab, carriage return, line feed, vertical tab and form feed.
bool isAsciiSpace(char c);
std::string_view trim(std::string_view text);
std::string lowerAscii(std::string_view text);

/// Non-empty pieces between occurrences of `separator`.
std::vector<std::string_view> splitDroppingEmpty(std::string_view text, char separator);

/// A base-10 signed integer with an optional leading sign, then digits only; nothing on anything
/// else or on overflow.
std::optional<std::int64_t> parseDecimal(std::string_view text);

}  // namespace vesko
