#include "helper/bounded_lines.h"

namespace vesko {

void BoundedLines::append(std::string_view bytes) {
  if (dropping_) {
    const auto end = bytes.find('\n');
    if (end == std::string_view::npos) return;
    bytes.remove_prefix(end + 1);
    dropping_ = false;
  }
  if (begin_ > 0 && begin_ >= buffer_.size() / 2) {
    buffer_.erase(0, begin_);
    scanned_ -= begin_;
    begin_ = 0;
  }
  buffer_.append(bytes);
}

std::optional<BoundedLines::Line> BoundedLines::next() {
  const auto end = buffer_.find('\n', scanned_);
  if (end != std::string::npos) {
    Line line;
    line.tooLong = end - begin_ > maxBytes_;
    if (!line.tooLong) line.text = buffer_.substr(begin_, end - begin_);
    begin_ = scanned_ = end + 1;
    return line;
  }
  scanned_ = buffer_.size();
  if (buffer_.size() - begin_ <= maxBytes_) return std::nullopt;
  // Swapping gives the memory back, which clear() would keep.
  std::string().swap(buffer_);
  begin_ = scanned_ = 0;
  dropping_ = true;
  return Line{.text = {}, .tooLong = true};
}

}  // namespace vesko
