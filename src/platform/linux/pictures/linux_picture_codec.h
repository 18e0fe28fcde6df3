// Picture files by the libraries of the system. Every decoder is chosen by the file's first bytes,
// never by its name. Any thread, several at once.
//
// Not read: a camera's raw data, and profiles of grey pictures, which are taken for sRGB.
#pragma once

#include "platform/picture_codec.h"

namespace vesko {

class LinuxPictureCodec : public PictureCodec {
 public:
  std::expected<Image, PictureError> decode(std::span<const std::byte> file) override;
  std::expected<std::size_t, JpegError> encodeJpeg(PixelSize size, double quality,
                                                   const RowSource& rows,
                                                   std::span<std::byte> out) override;
};

}  // namespace vesko
