#include "base/utf8.h"

#include <cstdint>
#include <cstring>

namespace vesko {
namespace {

constexpr std::uint64_t highBits = 0x8080808080808080ULL;

// Decodes one sequence at `p` (p < end). Returns its length, or 0 when it is malformed.
std::size_t decodeOne(const unsigned char* p, const unsigned char* end, char32_t& out) {
  const unsigned char lead = *p;
  if (lead < 0x80) {
    out = lead;
    return 1;
  }
  std::size_t length = 0;
  char32_t value = 0;
  char32_t smallest = 0;
  if ((lead & 0xE0) == 0xC0) {
    length = 2, value = lead & 0x1FU, smallest = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3, value = lead & 0x0FU, smallest = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4, value = lead & 0x07U, smallest = 0x10000;
  } else {
    return 0;
  }
  if (static_cast<std::size_t>(end - p) < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;
    value = (value << 6) | (p[i] & 0x3FU);
  }
  const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
  if (value < smallest || value > 0x10FFFF || surrogate) return 0;
  out = value;
  return length;
}

}  // namespace

bool isValidUtf8(std::string_view bytes) {
  auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  auto* const end = p + bytes.size();
  while (p < end) {
    // Helper output is nearly all ASCII: take it sixteen bytes at a time.
    while (end - p >= 16) {
      std::uint64_t a = 0;
      std::uint64_t b = 0;
      std::memcpy(&a, p, 8);
      std::memcpy(&b, p + 8, 8);
      if (((a | b) & highBits) != 0) break;
      p += 16;
    }
    while (p < end && *p < 0x80) ++p;
    if (p == end) return true;
    char32_t ignored = 0;
    const std::size_t length = decodeOne(p, end, ignored);
    if (length == 0) return false;
    p += length;
  }
  return true;
}

std::optional<std::u32string> decodeUtf8(std::string_view bytes) {
  std::u32string result;
  result.reserve(bytes.size());
  auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  auto* const end = p + bytes.size();
  while (p < end) {
    char32_t codePoint = 0;
    const std::size_t length = decodeOne(p, end, codePoint);
    if (length == 0) return std::nullopt;
    result.push_back(codePoint);
    p += length;
  }
  return result;
}

void appendUtf8(std::string& out, char32_t c) {
  const auto push = [&out](char32_t byte) { out.push_back(static_cast<char>(byte)); };
  if (c < 0x80) {
    push(c);
  } else if (c < 0x800) {
    push(0xC0 | (c >> 6));
    push(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    push(0xE0 | (c >> 12));
    push(0x80 | ((c >> 6) & 0x3F));
    push(0x80 | (c & 0x3F));
  } else {
    push(0xF0 | (c >> 18));
    push(0x80 | ((c >> 12) & 0x3F));
    push(0x80 | ((c >> 6) & 0x3F));
    push(0x80 | (c & 0x3F));
  }
}

std::string_view utf8Prefix(std::string_view text, std::size_t maxCodePoints) {
  std::size_t count = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool continuation = (static_cast<unsigned char>(text[i]) & 0xC0) == 0x80;
    if (!continuation && count++ == maxCodePoints) return text.substr(0, i);
  }
  return text;
}

}  // namespace vesko
