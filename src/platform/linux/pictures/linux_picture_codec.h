// Picture files by the libraries of the system. Every decoder is chosen by the file's first bytes,
// never by its name. Any thread, several at once.
//
// The frames of an AVIF file are bounded by its decoder alone, not by what the file declares.
//
// Not read: a camera's raw data. Colours are brought to sRGB by the file's ICC profile alone: a
// grey picture's profile and what HEIC may say by numbers of its colour space are not looked at.
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
