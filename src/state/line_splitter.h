// Cuts a stream of text chunks into lines. Any thread, one at a time.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vesko {

class LineSplitter {
 public:
  /// A longer line is dropped whole, up to its newline: a writer that never ends its line must
  /// not take the application's memory.
  static constexpr std::size_t maxLineBytes = 32 << 20;

  /// Calls `onLine` with every complete line of the stream so far, without its newline and
  /// untrimmed, empty ones included, and `onOversized` once for each dropped line. Stops when
  /// `onLine` returns false and drops the rest of the chunk: its reader wants no more of it.
  template <class OnLine, class OnOversized>
  void append(std::string_view chunk, OnLine&& onLine, OnOversized&& onOversized) {
    for (auto newline = chunk.find('\n'); newline != std::string_view::npos;
         newline = chunk.find('\n')) {
      const bool goOn = finishLine(chunk.substr(0, newline), onLine);
      if (!goOn) return;
      chunk.remove_prefix(newline + 1);
    }
    if (dropping_) return;
    if (buffer_.size() + chunk.size() > maxLineBytes) {
      dropping_ = true;
      std::string().swap(buffer_);
      onOversized();
      return;
    }
    buffer_.append(chunk);
  }

  void clear();

  /// The stream so far does not end with a newline.
  bool midLine() const { return dropping_ || !buffer_.empty(); }

 private:
  template <class OnLine>
  bool finishLine(std::string_view end, OnLine&& onLine) {
    if (dropping_) {
      dropping_ = false;
      return true;
    }
    if (buffer_.empty()) return onLine(end);
    std::string line;
    line.swap(buffer_);
    line.append(end);
    return onLine(std::string_view(line));
  }

  std::string buffer_;  // the line whose newline has not come yet
  bool dropping_ = false;
};

}  // namespace vesko
