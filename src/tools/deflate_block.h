// Writes deflate blocks (RFC 1951) from tokens, each with the codes that suit it best.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vesko {

/// Bits in deflate's order into memory of a fixed size. Writing beyond it is dropped and noted.
class BitWriter {
 public:
  explicit BitWriter(std::span<std::uint8_t> out) : out_(out) {}

  bool overflowed() const { return overflowed_; }
  /// Whole bytes written; call align() before.
  std::size_t size() const { return size_; }

  /// At most 57 bits.
  void put(std::uint64_t bits, unsigned count) {
    bits_ |= bits << count_;
    count_ += count;
    flush();
  }
  void align();
  void putBytes(std::span<const std::uint8_t> bytes);

 private:
  void flush();

  std::span<std::uint8_t> out_;
  std::size_t size_ = 0;
  std::uint64_t bits_ = 0;
  unsigned count_ = 0;
  bool overflowed_ = false;
};

/// Collects literals and matches and writes them as one block.
class DeflateBlock {
 public:
  static constexpr std::size_t maxTokens = 32768;
  static constexpr std::size_t minMatch = 3;
  static constexpr std::size_t maxMatch = 258;

  DeflateBlock();

  bool empty() const { return tokens_.empty(); }
  bool full() const { return tokens_.size() == maxTokens; }

  void literal(std::uint8_t byte) {
    ++literalUses_[byte];
    tokens_.push_back(byte);
  }
  /// `length` from minMatch to maxMatch, `distance` from 1 to 32768.
  void match(std::size_t length, std::size_t distance);

  /// Writes the block and forgets its tokens. `bytes` is what the tokens stand for, or empty when
  /// it is no longer at hand; it is stored as it is where that is shorter.
  void write(BitWriter& out, std::span<const std::uint8_t> bytes, bool final);

 private:
  static constexpr std::size_t literalSymbols = 286;
  static constexpr std::size_t distanceSymbols = 30;

  void writeTokens(BitWriter& out, std::span<const std::uint8_t> lengths,
                   std::span<const std::uint8_t> distanceLengths) const;

  // A token is a byte, or distance << 9 | length.
  std::vector<std::uint32_t> tokens_;
  std::array<std::uint32_t, literalSymbols> literalUses_{};
  std::array<std::uint32_t, distanceSymbols> distanceUses_{};
};

/// Lengths of a prefix code over the symbols with uses, none longer than `maxLength`; symbols
/// without uses get 0. A single used symbol gets length 1.
void assignCodeLengths(std::span<const std::uint32_t> uses, unsigned maxLength,
                       std::span<std::uint8_t> lengths);

}  // namespace vesko
