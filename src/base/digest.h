// SHA-256 and the system's random source. Any thread.
#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace vesko {

/// 64 lower-case hexadecimal characters.
std::string sha256Hex(std::span<const std::byte> bytes);

std::string hexLower(std::span<const std::byte> bytes);

/// Fills from the cryptographic generator; false when it has failed.
[[nodiscard]] bool fillRandom(std::span<std::byte> bytes);

/// A random (version 4) UUID in its upper-case text form, RFC 9562; empty when the generator failed.
std::string randomUuid();

/// Compares without an early exit: the time depends on the lengths only.
bool constantTimeEqual(std::string_view a, std::string_view b);

}  // namespace vesko
