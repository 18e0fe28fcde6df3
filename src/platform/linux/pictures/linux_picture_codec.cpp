#include "platform/linux/pictures/linux_picture_codec.h"

#include <exception>
#include <string_view>

#include "platform/linux/pictures/jpeg_encoder.h"
#include "platform/linux/pictures/picture_decoders.h"

namespace vesko {
namespace {

using namespace std::string_view_literals;

struct Format {
  std::size_t at;
  std::string_view mark;
  PictureDecoder decoder;
};

constexpr Format formats[] = {
    {0, "\xFF\xD8\xFF"sv, decodeJpegPicture}, {0, "\x89PNG\r\n\x1A\n"sv, decodePngPicture},
    {0, "GIF87a"sv, decodeGifPicture},        {0, "GIF89a"sv, decodeGifPicture},
    {8, "WEBP"sv, decodeWebpPicture},         {4, "ftyp"sv, decodeHeifPicture},
    {0, "II*\0"sv, decodeTiffPicture},        {0, "MM\0*"sv, decodeTiffPicture},
    {0, "II+\0"sv, decodeTiffPicture},        {0, "MM\0+"sv, decodeTiffPicture},
};

}  // namespace

std::expected<Image, PictureError> LinuxPictureCodec::decode(std::span<const std::byte> file) {
  const std::string_view text(reinterpret_cast<const char*>(file.data()), file.size());
  for (const Format& format : formats) {
    if (text.size() < format.at || !text.substr(format.at).starts_with(format.mark)) continue;
    // libheif is written in C++ and does not promise to keep its exceptions to itself.
    try {
      return format.decoder(file);
    } catch (const std::exception&) {
      return std::unexpected(PictureError::damaged);
    }
  }
  return std::unexpected(PictureError::unsupported);
}

std::expected<std::size_t, JpegError> LinuxPictureCodec::encodeJpeg(PixelSize size, double quality,
                                                                    const RowSource& rows,
                                                                    std::span<std::byte> out) {
  return encodeJpegFile(size, quality, rows, out);
}

}  // namespace vesko
