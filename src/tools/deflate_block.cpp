#include "tools/deflate_block.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

namespace vesko {
namespace {

constexpr std::size_t endOfBlock = 256;
constexpr unsigned maxCodeLength = 15;
constexpr unsigned maxLengthCodeLength = 7;

struct Extra {
  std::uint16_t symbol = 0;
  std::uint8_t bits = 0;
  std::uint16_t value = 0;
};

// RFC 1951, section 3.2.5: every length's symbol, extra bits and their value.
constexpr auto lengthSymbols = [] {
  std::array<Extra, DeflateBlock::maxMatch + 1> table{};
  std::size_t length = 3;
  for (std::uint16_t symbol = 257; symbol < 285; ++symbol) {
    const int index = symbol - 257;
    const auto bits = static_cast<std::uint8_t>(index < 8 ? 0 : index / 4 - 1);
    for (std::uint16_t value = 0; value < 1 << bits && length <= 257; ++value)
      table[length++] = {symbol, bits, value};
  }
  table[258] = {285, 0, 0};
  return table;
}();

constexpr Extra distanceSymbol(std::size_t distance) {
  const auto offset = static_cast<std::uint32_t>(distance - 1);
  if (offset < 4) return {static_cast<std::uint16_t>(offset), 0, 0};
  const auto bits = static_cast<std::uint8_t>(std::bit_width(offset) - 2);
  return {static_cast<std::uint16_t>(2 * bits + (offset >> bits)), bits,
          static_cast<std::uint16_t>(offset & ((1U << bits) - 1))};
}

struct Code {
  std::uint32_t bits = 0;
  std::uint32_t length = 0;
};

/// Canonical codes of the given lengths, reversed for deflate's bit order.
template <std::size_t count>
std::array<Code, count> canonicalCodes(std::span<const std::uint8_t> lengths) {
  std::array<std::uint32_t, maxCodeLength + 2> next{};
  for (const std::uint8_t length : lengths) {
    if (length > 0) ++next[length + 1U];
  }
  for (unsigned length = 2; length < next.size(); ++length)
    next[length] = (next[length] + next[length - 1]) << 1;
  std::array<Code, count> codes{};
  for (std::size_t symbol = 0; symbol < lengths.size(); ++symbol) {
    const std::uint32_t length = lengths[symbol];
    if (length == 0) continue;
    std::uint32_t code = next[length]++;
    std::uint32_t reversed = 0;
    for (std::uint32_t bit = 0; bit < length; ++bit, code >>= 1)
      reversed = reversed << 1 | (code & 1);
    codes[symbol] = {reversed, length};
  }
  return codes;
}

/// The code lengths of a block, themselves run-length coded (RFC 1951, section 3.2.7).
struct PackedLengths {
  struct Item {
    std::uint8_t symbol;
    std::uint8_t extraBits;
    std::uint8_t extra;
  };
  std::vector<Item> items;
  std::array<std::uint32_t, 19> uses{};

  explicit PackedLengths(std::span<const std::uint8_t> lengths) {
    for (std::size_t i = 0; i < lengths.size();) {
      const std::uint8_t length = lengths[i];
      std::size_t run = 1;
      while (i + run < lengths.size() && lengths[i + run] == length) ++run;
      i += run;
      if (length > 0) {
        add(length, 0, 0);
        --run;
      }
      while (run >= 3) {
        const std::size_t most = length > 0 ? 6 : 138;
        const std::size_t part = std::min(run, most);
        if (length > 0) {
          add(16, 2, part - 3);
        } else if (part <= 10) {
          add(17, 3, part - 3);
        } else {
          add(18, 7, part - 11);
        }
        run -= part;
      }
      for (; run > 0; --run) add(length, 0, 0);
    }
  }

 private:
  void add(std::uint8_t symbol, std::uint8_t extraBits, std::size_t extra) {
    items.push_back({symbol, extraBits, static_cast<std::uint8_t>(extra)});
    ++uses[symbol];
  }
};

constexpr std::array<std::uint8_t, 19> lengthCodeOrder{16, 17, 18, 0, 8,  7, 9,  6, 10, 5,
                                                       11, 4,  12, 3, 13, 2, 14, 1, 15};

}  // namespace

void BitWriter::flush() {
  if (out_.size() - size_ < sizeof(bits_)) [[unlikely]] {
    for (; count_ >= 8; count_ -= 8, bits_ >>= 8) {
      if (size_ == out_.size()) {
        overflowed_ = true;
      } else {
        out_[size_++] = static_cast<std::uint8_t>(bits_);
      }
    }
    return;
  }
  std::uint64_t little = bits_;
  if constexpr (std::endian::native == std::endian::big) little = __builtin_bswap64(little);
  std::memcpy(out_.data() + size_, &little, sizeof(little));
  size_ += count_ >> 3;
  bits_ >>= count_ & ~7U;
  count_ &= 7;
}

void BitWriter::align() {
  if (count_ > 0) put(0, 8 - count_);
}

void BitWriter::putBytes(std::span<const std::uint8_t> bytes) {
  align();
  if (out_.size() - size_ < bytes.size()) {
    overflowed_ = true;
    return;
  }
  std::ranges::copy(bytes, out_.begin() + static_cast<std::ptrdiff_t>(size_));
  size_ += bytes.size();
}

void assignCodeLengths(std::span<const std::uint32_t> uses, unsigned maxLength,
                       std::span<std::uint8_t> lengths) {
  struct Node {
    std::uint64_t weight;
    std::uint32_t symbolOrParent;
  };
  std::ranges::fill(lengths, std::uint8_t{0});
  std::vector<Node> leaves;
  for (std::uint32_t symbol = 0; symbol < uses.size(); ++symbol) {
    if (uses[symbol] > 0) leaves.push_back({uses[symbol], symbol});
  }
  if (leaves.empty()) return;
  if (leaves.size() == 1) {
    lengths[leaves.front().symbolOrParent] = 1;
    return;
  }
  std::ranges::sort(leaves, {},
                    [](const Node& node) { return std::pair(node.weight, node.symbolOrParent); });

  // Huffman's algorithm with two queues: leaves by weight, inner nodes in order of their making.
  const std::size_t count = leaves.size();
  std::vector<Node> nodes = leaves;
  nodes.reserve(2 * count);
  std::size_t leaf = 0;
  std::size_t inner = count;
  const auto takeLightest = [&] {
    const bool takeLeaf =
        leaf < count && (inner == nodes.size() || nodes[leaf].weight <= nodes[inner].weight);
    return takeLeaf ? leaf++ : inner++;
  };
  while (nodes.size() < 2 * count - 1) {
    const auto parent = static_cast<std::uint32_t>(nodes.size());
    const std::size_t a = takeLightest();
    const std::size_t b = takeLightest();
    nodes.push_back({nodes[a].weight + nodes[b].weight, 0});
    nodes[a].symbolOrParent = parent;
    nodes[b].symbolOrParent = parent;
  }
  std::vector<unsigned> depths(nodes.size(), 0);
  std::vector<std::size_t> perLength(maxLength + 1, 0);
  for (std::size_t i = nodes.size() - 1; i-- > 0;) {
    depths[i] = depths[nodes[i].symbolOrParent] + 1;
    if (i < count) ++perLength[std::min(depths[i], maxLength)];
  }
  // Cutting the depth overfills the code; lengthening shorter codes makes room again.
  std::size_t filled = 0;
  for (unsigned length = 1; length <= maxLength; ++length)
    filled += perLength[length] << (maxLength - length);
  while (filled > std::size_t{1} << maxLength) {
    unsigned length = maxLength - 1;
    while (perLength[length] == 0) --length;
    // One code moves down a level and takes one of the deepest with it as its sibling.
    --perLength[length];
    perLength[length + 1] += 2;
    --perLength[maxLength];
    --filled;
  }
  // The rarest symbols get the longest codes.
  std::size_t next = 0;
  for (unsigned length = maxLength; length > 0; --length) {
    for (std::size_t i = 0; i < perLength[length]; ++i)
      lengths[leaves[next++].symbolOrParent] = static_cast<std::uint8_t>(length);
  }
}

DeflateBlock::DeflateBlock() {
  tokens_.reserve(maxTokens);
}

void DeflateBlock::match(std::size_t length, std::size_t distance) {
  ++literalUses_[lengthSymbols[length].symbol];
  ++distanceUses_[distanceSymbol(distance).symbol];
  tokens_.push_back(static_cast<std::uint32_t>(distance << 9 | length));
}

void DeflateBlock::write(BitWriter& out, std::span<const std::uint8_t> bytes, bool final) {
  literalUses_[endOfBlock] = 1;
  std::array<std::uint8_t, literalSymbols + distanceSymbols> lengths{};
  const auto literalLengths = std::span(lengths).first<literalSymbols>();
  assignCodeLengths(literalUses_, maxCodeLength, literalLengths);
  std::array<std::uint8_t, distanceSymbols> distanceLengths{};
  assignCodeLengths(distanceUses_, maxCodeLength, distanceLengths);
  std::size_t literalCount = literalSymbols;
  while (lengths[literalCount - 1] == 0) --literalCount;  // ends at endOfBlock at the latest
  std::size_t distanceCount = distanceSymbols;
  while (distanceCount > 1 && distanceLengths[distanceCount - 1] == 0) --distanceCount;
  std::ranges::copy(std::span(distanceLengths).first(distanceCount),
                    lengths.begin() + static_cast<std::ptrdiff_t>(literalCount));
  PackedLengths packed(std::span(lengths).first(literalCount + distanceCount));
  // Decoders refuse a code of a single symbol here.
  if (std::ranges::count(packed.uses, 0U) == 18) ++packed.uses[packed.uses[0] > 0 ? 1 : 0];
  std::array<std::uint8_t, 19> packedLengths{};
  assignCodeLengths(packed.uses, maxLengthCodeLength, packedLengths);

  std::size_t cost = 17 + 19 * 3;
  for (const auto& item : packed.items) cost += packedLengths[item.symbol] + item.extraBits;
  for (std::size_t symbol = 0; symbol < literalSymbols; ++symbol) {
    const std::size_t extra = symbol < 265 || symbol == 285 ? 0 : (symbol - 257) / 4 - 1;
    cost += literalUses_[symbol] * (literalLengths[symbol] + extra);
  }
  for (std::size_t symbol = 0; symbol < distanceSymbols; ++symbol)
    cost += distanceUses_[symbol] * (distanceLengths[symbol] + (symbol < 4 ? 0 : symbol / 2 - 1));

  constexpr std::size_t maxStored = 65535;
  if (!bytes.empty() && bytes.size() <= maxStored && cost / 8 > bytes.size() + 5) {
    out.put(final ? 1 : 0, 3);
    out.align();
    out.put(bytes.size() | (~bytes.size() & 0xFFFF) << 16, 32);
    out.putBytes(bytes);
  } else {
    out.put(final ? 5 : 4, 3);  // dynamic codes
    out.put(literalCount - 257, 5);
    out.put(distanceCount - 1, 5);
    out.put(packedLengths.size() - 4, 4);
    for (const std::uint8_t symbol : lengthCodeOrder) out.put(packedLengths[symbol], 3);
    const auto codes = canonicalCodes<19>(packedLengths);
    for (const auto& item : packed.items) {
      out.put(codes[item.symbol].bits, codes[item.symbol].length);
      out.put(item.extra, item.extraBits);
    }
    writeTokens(out, std::span(lengths).first(literalCount), distanceLengths);
  }
  tokens_.clear();
  literalUses_ = {};
  distanceUses_ = {};
}

void DeflateBlock::writeTokens(BitWriter& out, std::span<const std::uint8_t> lengths,
                               std::span<const std::uint8_t> distanceLengths) const {
  const auto literals = canonicalCodes<literalSymbols>(lengths);
  const auto distances = canonicalCodes<distanceSymbols>(distanceLengths);
  for (const std::uint32_t token : tokens_) {
    if (token < 256) {
      out.put(literals[token].bits, literals[token].length);
      continue;
    }
    const Extra& length = lengthSymbols[token & 0x1FF];
    const Extra distance = distanceSymbol(token >> 9);
    const Code& lengthCode = literals[length.symbol];
    const Code& distanceCode = distances[distance.symbol];
    std::uint64_t bits = distance.value;
    bits = bits << distanceCode.length | distanceCode.bits;
    bits = bits << length.bits | length.value;
    bits = bits << lengthCode.length | lengthCode.bits;
    out.put(bits, lengthCode.length + length.bits + distanceCode.length + distance.bits);
  }
  out.put(literals[endOfBlock].bits, literals[endOfBlock].length);
}

}  // namespace vesko
