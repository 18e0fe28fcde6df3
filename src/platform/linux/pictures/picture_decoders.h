// One decoder per format. Each takes a whole file of untrusted content. Any thread.
#pragma once

#include <cstddef>
#include <expected>
#include <span>

#include "platform/picture_codec.h"

namespace vesko {

using PictureDecoder = std::expected<Image, PictureError> (*)(std::span<const std::byte> file);

/// ISO/IEC 10918-1, with JFIF, Exif and Adobe markers; also CMYK.
std::expected<Image, PictureError> decodeJpegPicture(std::span<const std::byte> file);
/// ISO/IEC 15948 with the eXIf chunk.
std::expected<Image, PictureError> decodePngPicture(std::span<const std::byte> file);
/// GIF89a; the first frame on its screen.
std::expected<Image, PictureError> decodeGifPicture(std::span<const std::byte> file);
/// RFC 9649; the first frame on its canvas.
std::expected<Image, PictureError> decodeWebpPicture(std::span<const std::byte> file);
/// ISO/IEC 23008-12; the primary image.
std::expected<Image, PictureError> decodeHeifPicture(std::span<const std::byte> file);
/// TIFF 6.0; the first page that is no thumbnail. A camera's raw data is not supported.
std::expected<Image, PictureError> decodeTiffPicture(std::span<const std::byte> file);

}  // namespace vesko
