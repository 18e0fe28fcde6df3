// Cuts text into the pieces that one keyboard event carries. Any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vesko {

/// What one Quartz keyboard event takes without truncation, in UTF-16 units.
inline constexpr std::size_t maxChunkUnits = 20;

/// Non-empty pieces of at most maxChunkUnits that together are `text`, which is valid UTF-8.
/// Surrogate pairs stay whole, and so do a character with its combining marks, joined emoji and a
/// carriage return with its line feed, unless one alone is longer than a piece.
std::vector<std::u16string> utf16Chunks(std::string_view text);

}  // namespace vesko
