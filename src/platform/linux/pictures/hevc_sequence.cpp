#include "platform/linux/pictures/hevc_sequence.h"

#include <cstddef>

namespace vesko {
namespace {

/// The bits of a NAL unit, without the bytes that keep start codes out of it. Beyond the end come
/// zeros, and it is no longer whole.
class UnitBits {
 public:
  explicit UnitBits(std::span<const std::uint8_t> unit) : rest_(unit) {}

  bool whole() const { return whole_; }

  void skip(int count) {
    while (count-- > 0) (void)bit();
  }
  std::uint32_t bits(int count) {
    std::uint32_t value = 0;
    while (count-- > 0) value = value << 1 | bit();
    return value;
  }
  /// Of the Exp-Golomb code (9.2).
  std::uint64_t number() {
    int zeros = 0;
    while (bit() == 0) {
      if (!whole_ || ++zeros > 32) {
        whole_ = false;
        return 0;
      }
    }
    std::uint64_t value = 1;
    for (int i = 0; i < zeros; ++i) value = value << 1 | bit();
    return value - 1;
  }

 private:
  std::uint32_t bit() {
    if (left_ == 0) nextByte();
    if (left_ == 0) return 0;
    --left_;
    return byte_ >> left_ & 1U;
  }
  void nextByte() {
    if (zeroBytes_ >= 2 && !rest_.empty() && rest_.front() == 3) {
      rest_ = rest_.subspan(1);
      zeroBytes_ = 0;
    }
    if (rest_.empty()) {
      whole_ = false;
      return;
    }
    byte_ = rest_.front();
    rest_ = rest_.subspan(1);
    zeroBytes_ = byte_ == 0 ? zeroBytes_ + 1 : 0;
    left_ = 8;
  }

  std::span<const std::uint8_t> rest_;
  std::uint32_t byte_ = 0;
  int left_ = 0;  ///< bits of the byte
  int zeroBytes_ = 0;
  bool whole_ = true;
};

void skipProfileTierLevel(UnitBits& bits, int subLayers) {
  constexpr int profileBits = 88;
  constexpr int levelBits = 8;
  bits.skip(profileBits + levelBits);
  if (subLayers == 0) return;
  std::uint32_t present = bits.bits(16);  // of eight layers, two bits each
  for (int i = 0; i < subLayers; ++i, present <<= 2) {
    if (present & 0x8000U) bits.skip(profileBits);
    if (present & 0x4000U) bits.skip(levelBits);
  }
}

}  // namespace

std::optional<std::uint64_t> hevcFramePixels(std::span<const std::uint8_t> unit) {
  constexpr std::size_t headerBytes = 2;
  if (unit.size() < headerBytes) return std::nullopt;
  UnitBits bits(unit);
  bits.skip(8 * headerBytes + 4);
  const auto subLayers = static_cast<int>(bits.bits(3));
  bits.skip(1);
  skipProfileTierLevel(bits, subLayers);
  (void)bits.number();                   // its own number
  if (bits.number() == 3) bits.skip(1);  // of the chroma format, whether planes are separate
  const std::uint64_t width = bits.number();
  const std::uint64_t height = bits.number();
  constexpr std::uint64_t maxSide = 0xFFFF;
  if (!bits.whole() || width > maxSide || height > maxSide) return std::nullopt;
  return width * height;
}

}  // namespace vesko
