// Pictures that the tests draw, and files of them that other programs write.
#pragma once

#include <gtest/gtest.h>
#include <libdeflate.h>
#include <libheif/heif.h>

#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

#include "platform/writable_image.h"
#include "support/temporary_directory.h"
#include "tools/png_encoder.h"

/// The encoder that heicFile() uses keeps some memory; the leak sanitizer asks here.
extern "C" [[gnu::used]] inline const char* __lsan_default_suppressions() {
  return "leak:libx265";
}

namespace vesko::test {

template <class Paint>
Image painted(PixelSize size, bool opaque, const Paint& paint) {
  auto made = WritableImage::make(size, opaque);
  for (int y = 0; y < size.height; ++y) {
    for (int x = 0; x < size.width; ++x) made.pixels[y * size.width + x] = paint(x, y);
  }
  return std::move(made.image);
}

inline constexpr std::uint32_t quarters[4] = {0xFFC83228, 0xFF28A03C, 0xFF3C50C8, 0xFFE6DC78};

/// A colour in each quarter: every way of turning it looks different.
inline Image quarteredPicture(PixelSize size) {
  return painted(size, true, [size](int x, int y) {
    return quarters[(y >= size.height / 2 ? 2 : 0) + (x >= size.width / 2 ? 1 : 0)];
  });
}

/// What no encoder can make small.
inline Image noisyPicture(PixelSize size) {
  std::uint32_t state = 1;
  return painted(size, true, [&state](int, int) {
    state = state * 1664525 + 1013904223;
    return 0xFF000000U | state >> 8;
  });
}

inline std::string pngFile(const Image& image) {
  const auto file = encodePng(image);
  return {reinterpret_cast<const char*>(file->bytes().data()), file->bytes().size()};
}

inline std::span<const std::byte> bytesOf(std::string_view text) {
  return std::as_bytes(std::span(text));
}

/// The file that ImageMagick makes of one or two pictures.
inline std::string converted(const std::string& options, const std::string& extension,
                             const std::string& first, const std::string& second = {}) {
  const support::TemporaryDirectory folder;
  support::writeFile(folder / "1.png", first);
  if (!second.empty()) support::writeFile(folder / "2.png", second);
  const std::string command = "cd '" + folder.path().native() + "' && convert 1.png " +
                              (second.empty() ? "" : "2.png ") + options + " " + extension;
  EXPECT_EQ(std::system(command.c_str()), 0) << command;
  const auto name = extension.substr(extension.find(':') + 1);
  return support::contentOf(folder / name);
}

inline std::string bigEndian(std::uint32_t value) {
  return {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
          static_cast<char>(value >> 8), static_cast<char>(value)};
}

inline std::string littleEndian(std::uint32_t value) {
  const std::string text = bigEndian(value);
  return {text.rbegin(), text.rend()};
}

/// The TIFF structure with nothing but an orientation.
inline std::string exifData(int orientation) {
  return std::string("MM\0*\0\0\0\x08\0\x01\x01\x12\0\x03\0\0\0\x01\0", 19) +
         static_cast<char>(orientation) + std::string(6, '\0');
}

inline std::string jpegWith(std::string file, char marker, const std::string& content) {
  const std::size_t length = content.size() + 2;
  return file.insert(2, std::string("\xFF") + marker + static_cast<char>(length >> 8) +
                            static_cast<char>(length) + content);
}

inline std::string pngChunk(const std::string& type, const std::string& content) {
  const std::string checked = type + content;
  return bigEndian(static_cast<std::uint32_t>(content.size())) + checked +
         bigEndian(libdeflate_crc32(0, checked.data(), checked.size()));
}

inline std::string pngWith(std::string file, const std::string& type, const std::string& content) {
  constexpr std::size_t headerEnd = 8 + 25;
  return file.insert(headerEnd, pngChunk(type, content));
}

/// Of a file in the simple form, whose picture is of `size`.
inline std::string webpWithExif(const std::string& file, PixelSize size, const std::string& exif) {
  const auto chunk = [](const std::string& type, const std::string& content) {
    return type + littleEndian(static_cast<std::uint32_t>(content.size())) + content +
           std::string(content.size() % 2, '\0');
  };
  const auto side = [](int pixels) {
    return littleEndian(static_cast<std::uint32_t>(pixels - 1)).substr(0, 3);
  };
  const std::string body =
      "WEBP" + chunk("VP8X", std::string("\x08\0\0\0", 4) + side(size.width) + side(size.height)) +
      file.substr(12) + chunk("EXIF", exif);
  return chunk("RIFF", body);
}

inline std::string profileChunk(const std::string& profile) {
  libdeflate_compressor* compressor = libdeflate_alloc_compressor(6);
  std::string packed(libdeflate_zlib_compress_bound(compressor, profile.size()), '\0');
  packed.resize(libdeflate_zlib_compress(compressor, profile.data(), profile.size(), packed.data(),
                                         packed.size()));
  libdeflate_free_compressor(compressor);
  return std::string("profile\0\0", 9) + packed;
}

struct HeicExtras {
  int orientation = 1;      ///< in the properties of the image
  int exifOrientation = 1;  ///< in its Exif data
  std::string profile = {};
};

/// `image` is opaque or of straight alpha.
inline std::string heicFile(const Image& image, const HeicExtras& extras) {
  heif_image* pixels = nullptr;
  const auto [width, height] = image.size;
  heif_image_create(width, height, heif_colorspace_RGB,
                    image.opaque ? heif_chroma_interleaved_RGB : heif_chroma_interleaved_RGBA,
                    &pixels);
  heif_image_add_plane(pixels, heif_channel_interleaved, width, height, 8);
  int stride = 0;
  std::uint8_t* plane = heif_image_get_plane(pixels, heif_channel_interleaved, &stride);
  const int samples = image.opaque ? 3 : 4;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      for (int i = 0; i < samples; ++i)
        plane[y * stride + x * samples + i] =
            static_cast<std::uint8_t>(image.row(y)[x] >> (i == 3 ? 24 : 16 - 8 * i));
    }
  }
  if (!extras.profile.empty())
    heif_image_set_raw_color_profile(pixels, "prof", extras.profile.data(), extras.profile.size());
  heif_context* context = heif_context_alloc();
  heif_encoder* encoder = nullptr;
  heif_context_get_encoder_for_format(context, heif_compression_HEVC, &encoder);
  heif_encoder_set_lossy_quality(encoder, 95);
  heif_encoding_options* options = heif_encoding_options_alloc();
  options->image_orientation = static_cast<heif_orientation>(extras.orientation);
  heif_image_handle* handle = nullptr;
  const heif_error error = heif_context_encode_image(context, pixels, encoder, options, &handle);
  EXPECT_EQ(error.code, heif_error_Ok) << error.message;
  const std::string exif = exifData(extras.exifOrientation);
  heif_context_add_exif_metadata(context, handle, exif.data(), static_cast<int>(exif.size()));
  std::string file;
  heif_writer writer{1, [](heif_context*, const void* data, std::size_t size, void* out) {
                       static_cast<std::string*>(out)->assign(static_cast<const char*>(data), size);
                       return heif_error{heif_error_Ok, heif_suberror_Unspecified, ""};
                     }};
  heif_context_write(context, &writer, &file);
  heif_image_handle_release(handle);
  heif_encoding_options_free(options);
  heif_encoder_release(encoder);
  heif_context_free(context);
  heif_image_release(pixels);
  return file;
}

/// The same with other bytes at `at`.
inline std::string patched(std::string file, std::size_t at, const std::string& bytes) {
  EXPECT_LE(at + bytes.size(), file.size());
  return file.replace(at, bytes.size(), bytes);
}

}  // namespace vesko::test
