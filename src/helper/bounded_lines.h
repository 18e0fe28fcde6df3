// Splits a byte stream into lines of bounded length. One thread at a time.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vesko {

class BoundedLines {
 public:
  struct Line {
    std::string text;      ///< without the newline; empty when too long
    bool tooLong = false;  ///< reported once, when the limit is passed; the rest is dropped unseen
  };

  explicit BoundedLines(std::size_t maxBytes) : maxBytes_(maxBytes) {}

  /// Memory stays below the limit plus one appended piece when next() is drained in between.
  void append(std::string_view bytes);
  /// The next complete line; bytes after the last newline wait for more.
  std::optional<Line> next();

 private:
  std::size_t maxBytes_;
  std::string buffer_;
  std::size_t begin_ = 0;    ///< start of the current line
  std::size_t scanned_ = 0;  ///< no newline between begin_ and here
  bool dropping_ = false;    ///< inside a line that was reported as too long
};

}  // namespace vesko
