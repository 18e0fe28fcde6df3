// Base64 (RFC 4648) in its standard alphabet, padded and without line breaks. Any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace vesko {

void appendBase64(std::string& out, std::span<const std::byte> bytes);

/// Nothing on a foreign character, white space, wrong padding or non-zero trailing bits.
std::optional<std::string> decodeBase64(std::string_view text);

/// The URL-safe alphabet without padding (RFC 4648, section 5).
std::string base64UrlEncode(std::span<const std::byte> bytes);

}  // namespace vesko
