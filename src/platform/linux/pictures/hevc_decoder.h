// HEVC (ITU-T H.265) for libheif, by libde265, with a bound on the memory of its frames: what the
// stream itself says counts, whatever the file around it declares. Any thread.
#pragma once

#include <cstdint>

namespace vesko {

/// The samples of all frames that are being decoded, together.
inline constexpr std::uint64_t maxHevcFrameBytes = 256 << 20;

/// From now on libheif decodes HEVC here, and frames that would be of more pixels than that
/// together are an error of kind heif_error_Memory_allocation_error.
void boundHevcFrames(std::uint64_t maxPixels);

}  // namespace vesko
