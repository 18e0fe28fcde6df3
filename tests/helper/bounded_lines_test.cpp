#include "helper/bounded_lines.h"

#include <gtest/gtest.h>

#include <vector>

namespace vesko {
namespace {

TEST(BoundedLinesTest, GivesTheSameLinesHoweverTheBytesArrive) {
  // "!" stands for a line that was too long; the limit is four.
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"", {}},
      {"a", {}},
      {"a\nbc\n", {"a", "bc"}},
      {"\n\nab\n", {"", "", "ab"}},
      {"1234\n12345\nok\n", {"1234", "!", "ok"}},
      {"123456789\n", {"!"}},
      {"a\n123456789123456789\n\nb\nrest", {"a", "!", "", "b"}},
      {"123456789", {"!"}},
      {"123456789\n123456789\na\n", {"!", "!", "a"}},
  };
  for (const auto& [text, expected] : cases) {
    for (const std::size_t piece : {1u, 2u, 3u, 7u, 100u}) {
      SCOPED_TRACE(text + " in pieces of " + std::to_string(piece));
      BoundedLines lines(4);
      std::vector<std::string> found;
      for (std::size_t at = 0; at < text.size(); at += piece) {
        lines.append(std::string_view(text).substr(at, piece));
        while (auto line = lines.next()) found.push_back(line->tooLong ? "!" : line->text);
      }
      EXPECT_EQ(found, expected);
    }
  }
}

}  // namespace
}  // namespace vesko
