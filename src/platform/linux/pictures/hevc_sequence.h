// What a sequence parameter set of HEVC says (ITU-T H.265, 7.3.2.2). Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace vesko {

/// Pixels of a coded frame. `unit` is a whole NAL unit with its header of two bytes; nothing when
/// it ends too early or names a side that no decoder takes.
std::optional<std::uint64_t> hevcFramePixels(std::span<const std::uint8_t> unit);

}  // namespace vesko
