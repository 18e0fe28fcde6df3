#include "tools/text_chunks.h"

#include <utility>

#include "base/utf8.h"

namespace vesko {
namespace {

constexpr char32_t zeroWidthJoiner = 0x200D;

constexpr bool within(char32_t c, char32_t first, char32_t last) {
  return c >= first && c <= last;
}

// Characters that attach to the one before: the blocks of combining marks, variation selectors,
// skin tones and tags. Marks within the blocks of single scripts are not worth a table here: a cut
// before one of them only spreads a syllable over two events.
constexpr bool extends(char32_t c) {
  return within(c, 0x0300, 0x036F) || within(c, 0x1AB0, 0x1AFF) || within(c, 0x1DC0, 0x1DFF) ||
         within(c, 0x20D0, 0x20FF) || within(c, 0xFE00, 0xFE0F) || within(c, 0xFE20, 0xFE2F) ||
         within(c, 0x1F3FB, 0x1F3FF) || within(c, 0xE0020, 0xE007F) ||
         within(c, 0xE0100, 0xE01EF) || c == zeroWidthJoiner;
}

constexpr bool regionalIndicator(char32_t c) {
  return within(c, 0x1F1E6, 0x1F1FF);
}

void appendUtf16(std::u16string& out, char32_t c) {
  if (c < 0x10000) {
    out.push_back(static_cast<char16_t>(c));
  } else {
    out.push_back(static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF)));
  }
}

}  // namespace

std::vector<std::u16string> utf16Chunks(std::string_view text) {
  std::vector<std::u16string> chunks;
  const auto characters = decodeUtf8(text);
  if (!characters) return chunks;

  std::u16string chunk;
  std::u16string cluster;
  const auto closeCluster = [&] {
    if (chunk.size() + cluster.size() > maxChunkUnits && !chunk.empty())
      chunks.push_back(std::exchange(chunk, {}));
    chunk += std::exchange(cluster, {});
  };
  char32_t previous = 0;
  bool flagOpen = false;
  for (const char32_t c : *characters) {
    const bool completesFlag = flagOpen && regionalIndicator(c);
    const bool attached = extends(c) || previous == zeroWidthJoiner || completesFlag ||
                          (previous == U'\r' && c == U'\n');
    if (!attached || cluster.size() + 2 > maxChunkUnits) closeCluster();
    flagOpen = regionalIndicator(c) && !completesFlag;
    appendUtf16(cluster, c);
    previous = c;
  }
  closeCluster();
  if (!chunk.empty()) chunks.push_back(std::move(chunk));
  return chunks;
}

}  // namespace vesko
