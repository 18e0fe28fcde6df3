#include "base/digest.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

namespace vesko {

std::string hexLower(std::span<const std::byte> bytes) {
  constexpr char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const std::byte b : bytes) {
    text.push_back(digits[std::to_integer<unsigned>(b) >> 4]);
    text.push_back(digits[std::to_integer<unsigned>(b) & 15]);
  }
  return text;
}

std::string sha256Hex(std::span<const std::byte> bytes) {
  std::array<std::byte, 32> digest{};
  unsigned length = 0;
  EVP_Digest(bytes.data(), bytes.size(), reinterpret_cast<unsigned char*>(digest.data()), &length,
             EVP_sha256(), nullptr);
  return hexLower(digest);
}

bool fillRandom(std::span<std::byte> bytes) {
  return RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()),
                    static_cast<int>(bytes.size())) == 1;
}

std::string randomUuid() {
  std::array<std::byte, 16> bytes{};
  if (!fillRandom(bytes)) return {};
  bytes[6] = (bytes[6] & std::byte{0x0F}) | std::byte{0x40};
  bytes[8] = (bytes[8] & std::byte{0x3F}) | std::byte{0x80};
  std::string text = hexLower(bytes);
  for (const std::size_t dash : {8, 13, 18, 23}) text.insert(dash, 1, '-');
  for (char& c : text) {
    if (c >= 'a' && c <= 'f') c = static_cast<char>(c - 'a' + 'A');
  }
  return text;
}

bool constantTimeEqual(std::string_view a, std::string_view b) {
  const std::size_t longer = a.size() > b.size() ? a.size() : b.size();
  std::size_t difference = a.size() ^ b.size();
  for (std::size_t i = 0; i < longer; ++i) {
    const auto left = i < a.size() ? static_cast<unsigned char>(a[i]) : 0U;
    const auto right = i < b.size() ? static_cast<unsigned char>(b[i]) : 0U;
    difference |= left ^ right;
  }
  return difference == 0;
}

}  // namespace vesko
