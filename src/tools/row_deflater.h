// Deflates the filtered rows of an image (RFC 1951), looking for the repetitions that pictures of
// screens have: of the pixel to the left, of the row above, and of glyphs seen shortly before.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "tools/deflate_block.h"
#include "base/page_memory.h"

namespace vesko {

/// Not synchronised. Rows go through a window of a few hundred kilobytes, so that the memory at
/// work stays in the cache however large the image is.
class RowDeflater {
 public:
  /// `rowBytes` counts the filter byte, `pixelBytes` is 3 or 4. What does not fit into `out` makes
  /// ok() false.
  RowDeflater(std::size_t rowBytes, std::size_t pixelBytes, std::span<std::uint8_t> out);

  /// Where the next row goes, filter byte first; a few bytes behind it may be overwritten.
  std::uint8_t* nextRow();
  /// Compresses what was put there.
  void addRow();
  /// The same for a row of zeros under the given filter byte.
  void addZeroRow(std::uint8_t filter);

  /// Ends the stream; or only aligns it to a byte, so that another stream can follow.
  void finish(bool final);
  bool ok() const { return window_ && !bits_.overflowed(); }
  std::size_t size() const { return bits_.size(); }

 private:
  /// How far back deflate can refer.
  static constexpr std::size_t reach = 32768;
  /// What of the window survives when it moves on: enough to store a block as it is.
  static constexpr std::size_t kept = 2 * reach;
  static constexpr unsigned hashBits = 13;
  /// What may be read or written behind a row.
  static constexpr std::size_t slack = 16;

  struct Match {
    std::size_t length = 0;
    std::size_t distance = 0;
  };

  Match findMatch(const std::uint8_t* at, const std::uint8_t* end);
  Match tryMatch(const std::uint8_t* at, const std::uint8_t* end, std::size_t distance) const;
  void emitLiterals(const std::uint8_t* at, std::size_t count);
  /// How many of the bytes it could cover.
  std::size_t emitMatch(const Match& match);
  void makeRoom();
  void writeBlock(bool final);

  std::size_t rowBytes_;
  std::size_t pixelBytes_;
  std::uint64_t twoPixels_;  ///< mask of as many bytes
  PageMemory window_;
  std::uint8_t* row_ = nullptr;         ///< the next row
  std::uint8_t* start_ = nullptr;       ///< of what is in the window
  std::uint8_t* end_ = nullptr;         ///< of the window
  std::uint8_t* blockStart_ = nullptr;  ///< null once it has left the window
  std::uint8_t* covered_ = nullptr;     ///< end of what the block's tokens stand for
  std::size_t base_ = 0;                ///< position of start_ in the whole stream
  std::array<std::uint32_t, std::size_t{1} << hashBits> lastSeen_{};
  BitWriter bits_;
  DeflateBlock block_;
};

}  // namespace vesko
