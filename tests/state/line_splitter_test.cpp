#include "state/line_splitter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vesko {
namespace {

struct Reader {
  LineSplitter splitter;
  std::vector<std::string> lines;
  int oversized = 0;

  void feed(std::string_view chunk) {
    splitter.append(
        chunk,
        [this](std::string_view line) {
          lines.emplace_back(line);
          return true;
        },
        [this] { ++oversized; });
  }
};

TEST(LineSplitter, givesTheSameLinesHoweverTheStreamIsCut) {
  const std::string stream =
      "one\n\n  two \nthr\xC3\xA9"
      "e\r\nrest";
  const std::vector<std::string> expected{"one", "", "  two ",
                                          "thr\xC3\xA9"
                                          "e\r"};
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    SCOPED_TRACE(cut);
    Reader reader;
    reader.feed(stream.substr(0, cut));
    reader.feed(stream.substr(cut));
    EXPECT_EQ(reader.lines, expected);
    reader.feed("!\n");
    EXPECT_EQ(reader.lines.back(), "rest!");
  }
}

TEST(LineSplitter, dropsAnEndlessLineOnceAndGoesOnBehindItsNewline) {
  Reader reader;
  const std::string chunk(1 << 20, 'x');
  for (std::size_t sent = 0; sent <= 2 * LineSplitter::maxLineBytes; sent += chunk.size())
    reader.feed(chunk);
  EXPECT_EQ(reader.oversized, 1);
  reader.feed("tail\nnext\n");
  EXPECT_EQ(reader.lines, std::vector<std::string>{"next"});
}

TEST(LineSplitter, takesALineOfExactlyTheLimit) {
  Reader reader;
  reader.feed(std::string(LineSplitter::maxLineBytes, 'x'));
  reader.feed("\n");
  EXPECT_EQ(reader.oversized, 0);
  ASSERT_EQ(reader.lines.size(), 1U);
  EXPECT_EQ(reader.lines[0].size(), LineSplitter::maxLineBytes);
}

TEST(LineSplitter, stopsWhenItsReaderHasHadEnough) {
  LineSplitter splitter;
  int seen = 0;
  splitter.append(
      "a\nb\nc",
      [&](std::string_view) {
        ++seen;
        splitter.clear();
        return false;
      },
      [] {});
  EXPECT_EQ(seen, 1);
  std::string next;
  splitter.append(
      "d\n",
      [&](std::string_view line) {
        next = line;
        return true;
      },
      [] {});
  EXPECT_EQ(next, "d");
}

}  // namespace
}  // namespace vesko
