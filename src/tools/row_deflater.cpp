#include "tools/row_deflater.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

namespace vesko {
namespace {

// A match as long as this is taken without looking for a longer one.
constexpr std::size_t goodLength = 48;

std::uint64_t load64(const std::uint8_t* at) {
  std::uint64_t value;
  std::memcpy(&value, at, sizeof(value));
  if constexpr (std::endian::native == std::endian::big) value = __builtin_bswap64(value);
  return value;
}

std::size_t commonLength(const std::uint8_t* a, const std::uint8_t* b, const std::uint8_t* end) {
  const std::uint8_t* begin = a;
  while (a < end) {
    const std::uint64_t difference = load64(a) ^ load64(b);
    if (difference != 0) {
      a += std::countr_zero(difference) / 8;
      break;
    }
    a += 8;
    b += 8;
  }
  return static_cast<std::size_t>(std::min(a, end) - begin);
}

}  // namespace

RowDeflater::RowDeflater(std::size_t rowBytes, std::size_t pixelBytes, std::span<std::uint8_t> out)
    : rowBytes_(rowBytes),
      pixelBytes_(pixelBytes),
      twoPixels_(~std::uint64_t{0} >> (64 - 16 * pixelBytes)),
      window_(2 * kept + std::max(2 * kept, 2 * rowBytes) + slack),
      bits_(out) {
  if (!window_) return;
  start_ = row_ = blockStart_ = covered_ = window_.as<std::uint8_t>();
  end_ = start_ + window_.size() - slack;
  // Position 0 of the stream stands for "never": nothing refers to it by hash.
}

std::uint8_t* RowDeflater::nextRow() {
  if (static_cast<std::size_t>(end_ - row_) < rowBytes_) makeRoom();
  return row_;
}

void RowDeflater::makeRoom() {
  const std::size_t used = static_cast<std::size_t>(row_ - start_);
  const std::size_t dropped = used - std::min(used, kept);
  std::memmove(start_, start_ + dropped, used - dropped);
  base_ += dropped;
  row_ -= dropped;
  covered_ -= dropped;
  if (blockStart_)
    blockStart_ =
        static_cast<std::size_t>(blockStart_ - start_) < dropped ? nullptr : blockStart_ - dropped;
}

RowDeflater::Match RowDeflater::tryMatch(const std::uint8_t* at, const std::uint8_t* end,
                                         std::size_t distance) const {
  if (distance > reach || distance > static_cast<std::size_t>(at - start_)) return {};
  if (((load64(at) ^ load64(at - distance)) & twoPixels_) != 0) return {};
  return {commonLength(at, at - distance, end), distance};
}

RowDeflater::Match RowDeflater::findMatch(const std::uint8_t* at, const std::uint8_t* end) {
  const std::uint64_t ahead = load64(at) & twoPixels_;
  const std::size_t slot = ahead * 0x9E3779B97F4A7C15U >> (64 - hashBits);
  const std::size_t position = base_ + static_cast<std::size_t>(at - start_);
  const std::size_t seen = std::exchange(lastSeen_[slot], static_cast<std::uint32_t>(position));

  Match best = tryMatch(at, end, pixelBytes_);
  if (best.length >= goodLength) return best;
  // A longer way back costs more bits: it has to gain at least a pixel.
  if (const Match above = tryMatch(at, end, rowBytes_); above.length > best.length + pixelBytes_)
    best = above;
  if (best.length >= goodLength || seen == 0 || position - seen > reach) return best;
  if (const Match other = tryMatch(at, end, position - seen);
      other.length > best.length + pixelBytes_)
    best = other;
  return best;
}

void RowDeflater::emitLiterals(const std::uint8_t* at, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    if (block_.full()) writeBlock(false);
    block_.literal(at[i]);
    ++covered_;
  }
}

std::size_t RowDeflater::emitMatch(const Match& match) {
  // Whole pixels, so that what follows begins with a pixel again.
  const std::size_t most = DeflateBlock::maxMatch / pixelBytes_ * pixelBytes_;
  const std::size_t length = match.length / pixelBytes_ * pixelBytes_;
  for (std::size_t done = 0; done < length;) {
    if (block_.full()) writeBlock(false);
    const std::size_t part = std::min(most, length - done);
    block_.match(part, match.distance);
    done += part;
    covered_ += part;
  }
  return length;
}

void RowDeflater::addRow() {
  const std::uint8_t* at = row_;
  const std::uint8_t* end = row_ + rowBytes_;
  emitLiterals(at++, 1);
  std::size_t misses = 0;
  while (at < end) {
    const Match match = findMatch(at, end);
    // Behind the row's end lies nothing: a match may come out shorter than the two pixels asked
    // for.
    if (match.length >= pixelBytes_) {
      at += emitMatch(match);
      misses = 0;
      continue;
    }
    // Where nothing repeats, looking at every pixel is wasted time.
    const std::size_t pixels = 1 + std::min<std::size_t>(misses++ / 32, 7);
    const std::size_t literals = std::min(pixels * pixelBytes_, static_cast<std::size_t>(end - at));
    emitLiterals(at, literals);
    at += literals;
  }
  row_ += rowBytes_;
}

void RowDeflater::addZeroRow(std::uint8_t filter) {
  std::uint8_t* row = nextRow();
  std::memset(row, 0, rowBytes_);
  *row = filter;
  emitLiterals(row, 1 + pixelBytes_);
  emitMatch({rowBytes_ - 1 - pixelBytes_, pixelBytes_});
  row_ += rowBytes_;
}

void RowDeflater::writeBlock(bool final) {
  std::span<const std::uint8_t> bytes;
  if (blockStart_) bytes = {blockStart_, covered_};
  block_.write(bits_, bytes, final);
  blockStart_ = covered_;
}

void RowDeflater::finish(bool final) {
  if (!block_.empty() || final) writeBlock(final);
  if (!final) {
    // An empty stored block ends on a byte's boundary.
    bits_.put(0, 3);
    bits_.align();
    bits_.put(0xFFFF0000U, 32);
  }
  bits_.align();
}

}  // namespace vesko
