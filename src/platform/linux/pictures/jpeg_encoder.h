// Writing JPEG files into memory of a given size. Any thread.
#pragma once

#include "platform/picture_codec.h"

namespace vesko {

std::expected<std::size_t, JpegError> encodeJpegFile(PixelSize size, double quality,
                                                     const PictureCodec::RowSource& rows,
                                                     std::span<std::byte> out);

}  // namespace vesko
