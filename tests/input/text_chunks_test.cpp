#include "tools/text_chunks.h"

#include <gtest/gtest.h>

#include <string>

namespace vesko {
namespace {

std::u16string joined(const std::vector<std::u16string>& chunks) {
  std::u16string text;
  for (const auto& chunk : chunks) text += chunk;
  return text;
}

TEST(TextChunksTest, CutsOnlyWhereNothingBreaks) {
  // Nineteen units of filler put each of these across the end of a piece.
  struct Case {
    const char* what;
    const char* unit;
    std::u16string expected;
  };
  const Case cases[] = {
      {"surrogate pair", "😀", u"😀"},
      {"combining mark", "e\u0301", u"e\u0301"},
      {"joined emoji", "👨‍👩‍👧", u"👨‍👩‍👧"},
      {"skin tone", "👍🏽", u"👍🏽"},
      {"flag", "🇩🇪", u"🇩🇪"},
      {"line end", "\r\n", u"\r\n"},
      {"variation selector", "❤️", u"❤️"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const auto chunks = utf16Chunks(std::string(19, 'x') + c.unit + "y");
    ASSERT_EQ(chunks.size(), 2U);
    EXPECT_EQ(chunks[0], std::u16string(19, u'x'));
    EXPECT_EQ(chunks[1], c.expected + u"y");
  }
}

TEST(TextChunksTest, PiecesAreFullAndTogetherTheText) {
  EXPECT_TRUE(utf16Chunks("").empty());
  EXPECT_EQ(utf16Chunks(std::string(40, 'a')),
            (std::vector{std::u16string(20, u'a'), std::u16string(20, u'a')}));
  // Two flags in a row are two characters, not one of four letters.
  std::string flags;
  for (int i = 0; i < 9; ++i) flags += "🇩🇪🇫🇷";
  for (const auto& chunk : utf16Chunks(flags)) EXPECT_EQ(chunk.size() % 4, 0U);
}

TEST(TextChunksTest, OneEndlessCharacterIsCutAllTheSame) {
  std::string zalgo = "e";
  for (int i = 0; i < 100; ++i) zalgo += "\u0301";
  const auto chunks = utf16Chunks(zalgo);
  EXPECT_EQ(joined(chunks).size(), 101U);
  for (const auto& chunk : chunks) EXPECT_LE(chunk.size(), maxChunkUnits);
}

}  // namespace
}  // namespace vesko
