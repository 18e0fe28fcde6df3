#include "platform/linux/pictures/hevc_decoder.h"

#include <libde265/de265.h>
#include <libheif/heif_plugin.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <map>
#include <memory>
#include <span>

#include "platform/linux/pictures/hevc_sequence.h"

namespace vesko {
namespace {

constexpr heif_error success{heif_error_Ok, heif_suberror_Unspecified, ""};
constexpr heif_error damaged{heif_error_Decoder_plugin_error, heif_suberror_Unspecified, ""};
constexpr heif_error tooLarge{heif_error_Memory_allocation_error,
                              heif_suberror_Security_limit_exceeded, ""};

/// Of one frame, or of all.
struct FrameCost {
  std::uint64_t pixels = 0;
  std::uint64_t bytes = 0;
};

/// What the frames of all decoders take: libheif decodes the tiles of a picture side by side.
class FrameBudget {
 public:
  void limitPixels(std::uint64_t most) { maxPixels_ = most; }

  bool allows(std::uint64_t framePixels) const { return framePixels <= maxPixels_; }
  bool take(const FrameCost& cost) {
    const std::uint64_t pixels = pixels_ += cost.pixels;
    const std::uint64_t bytes = bytes_ += cost.bytes;
    if (pixels <= maxPixels_ && bytes <= maxHevcFrameBytes) return true;
    giveBack(cost);
    return false;
  }
  void giveBack(const FrameCost& cost) {
    pixels_ -= cost.pixels;
    bytes_ -= cost.bytes;
  }

 private:
  std::atomic<std::uint64_t> maxPixels_ = 0;
  std::atomic<std::uint64_t> pixels_ = 0;
  std::atomic<std::uint64_t> bytes_ = 0;
};

FrameBudget budget;

int planesOf(const de265_image* frame) {
  return de265_get_chroma_format(frame) == de265_chroma_mono ? 1 : 3;
}

FrameCost costOf(const de265_image_spec& spec, const de265_image* frame) {
  const std::uint64_t pixels = static_cast<std::uint64_t>(std::max(spec.width, 0)) *
                               static_cast<std::uint64_t>(std::max(spec.height, 0));
  const bool deep =
      de265_get_bits_per_pixel(frame, 0) > 8 || de265_get_bits_per_pixel(frame, 1) > 8;
  const std::uint64_t halfSamples = spec.format == de265_image_format_mono8      ? 2
                                    : spec.format == de265_image_format_YUV420P8 ? 3
                                    : spec.format == de265_image_format_YUV422P8 ? 4
                                                                                 : 6;
  return {pixels, pixels * halfSamples / 2 * (deep ? 2 : 1)};
}

class HevcDecoder {
 public:
  HevcDecoder() : context_(de265_new_decoder()) {
    if (!context_) return;
    de265_image_allocation allocation{
        [](de265_decoder_context* context, de265_image_spec* spec, de265_image* frame, void* self) {
          return static_cast<HevcDecoder*>(self)->allocate(context, spec, frame) ? 1 : 0;
        },
        [](de265_decoder_context* context, de265_image* frame, void* self) {
          static_cast<HevcDecoder*>(self)->release(context, frame);
        }};
    de265_set_image_allocation_functions(context_.get(), &allocation, this);
    de265_start_worker_threads(context_.get(), 1);
  }
  HevcDecoder(const HevcDecoder&) = delete;
  HevcDecoder& operator=(const HevcDecoder&) = delete;

  bool usable() const { return context_ != nullptr; }

  heif_error push(std::span<const std::uint8_t> data);
  heif_error decode(heif_image** made);

 private:
  struct Free {
    void operator()(de265_decoder_context* context) const { de265_free_decoder(context); }
  };

  heif_error check(std::span<const std::uint8_t> unit);
  bool allocate(de265_decoder_context* context, de265_image_spec* spec, de265_image* frame);
  void release(de265_decoder_context* context, de265_image* frame);

  std::map<const de265_image*, FrameCost> frames_;
  int parameterSets_ = 0;
  bool exceeded_ = false;
  /// Gives its frames back when it ends, and so ends first.
  std::unique_ptr<de265_decoder_context, Free> context_;
};

bool HevcDecoder::allocate(de265_decoder_context* context, de265_image_spec* spec,
                           de265_image* frame) {
  const FrameCost cost = costOf(*spec, frame);
  if (!budget.take(cost)) {
    exceeded_ = true;
    return false;
  }
  if (!de265_get_default_image_allocation_functions()->get_buffer(context, spec, frame, nullptr)) {
    budget.giveBack(cost);
    return false;
  }
  frames_[frame] = cost;
  return true;
}

void HevcDecoder::release(de265_decoder_context* context, de265_image* frame) {
  de265_get_default_image_allocation_functions()->release_buffer(context, frame, nullptr);
  const auto found = frames_.find(frame);
  if (found == frames_.end()) return;
  budget.giveBack(found->second);
  frames_.erase(found);
}

/// Of parameter sets the decoder makes tables as it reads them, by the size of the frames that are
/// to come.
heif_error HevcDecoder::check(std::span<const std::uint8_t> unit) {
  constexpr int sequenceSet = 33;
  constexpr int pictureSet = 34;
  constexpr int maxParameterSets = 8;  // writers make one of each
  if (unit.empty()) return success;
  const int type = unit.front() >> 1 & 63;
  if (type != sequenceSet && type != pictureSet) return success;
  if (++parameterSets_ > maxParameterSets) return tooLarge;
  if (type == pictureSet) return success;
  const auto pixels = hevcFramePixels(unit);
  if (!pixels) return damaged;
  return budget.allows(*pixels) ? success : tooLarge;
}

/// Units of the stream, each after its length in four bytes.
heif_error HevcDecoder::push(std::span<const std::uint8_t> data) {
  constexpr std::size_t lengthBytes = 4;
  while (!data.empty()) {
    if (data.size() < lengthBytes) return damaged;
    const std::size_t length = std::size_t{data[0]} << 24 | std::size_t{data[1]} << 16 |
                               std::size_t{data[2]} << 8 | data[3];
    data = data.subspan(lengthBytes);
    if (length > data.size()) return damaged;
    if (const auto error = check(data.first(length)); error.code != heif_error_Ok) return error;
    if (de265_push_NAL(context_.get(), data.data(), static_cast<int>(length), 0, nullptr) !=
        DE265_OK)
      return damaged;
    data = data.subspan(length);
  }
  return success;
}

/// How the colours are coded; numbers that libheif does not know stay unspecified.
void describeColors(const de265_image* frame, heif_image* image) {
  heif_color_profile_nclx* colors = heif_nclx_color_profile_alloc();
  if (!colors) return;
  const auto number = [](int value) { return static_cast<std::uint16_t>(value); };
  (void)heif_nclx_color_profile_set_color_primaries(
      colors, number(de265_get_image_colour_primaries(frame)));
  (void)heif_nclx_color_profile_set_transfer_characteristics(
      colors, number(de265_get_image_transfer_characteristics(frame)));
  (void)heif_nclx_color_profile_set_matrix_coefficients(
      colors, number(de265_get_image_matrix_coefficients(frame)));
  colors->full_range_flag = de265_get_image_full_range_flag(frame) != 0;
  (void)heif_image_set_nclx_color_profile(image, colors);
  heif_nclx_color_profile_free(colors);
}

heif_error copyFrame(const de265_image* frame, heif_image* image) {
  static constexpr heif_channel channels[] = {heif_channel_Y, heif_channel_Cb, heif_channel_Cr};
  for (int plane = 0; plane < planesOf(frame); ++plane) {
    const int width = de265_get_image_width(frame, plane);
    const int height = de265_get_image_height(frame, plane);
    const int bits = de265_get_bits_per_pixel(frame, plane);
    if (const auto error = heif_image_add_plane(image, channels[plane], width, height, bits);
        error.code != heif_error_Ok)
      return error;
    int fromStride = 0;
    int toStride = 0;
    const std::uint8_t* from = de265_get_image_plane(frame, plane, &fromStride);
    std::uint8_t* to = heif_image_get_plane(image, channels[plane], &toStride);
    if (!from || !to) return damaged;
    const auto rowBytes = static_cast<std::size_t>(width) * (bits > 8 ? 2 : 1);
    for (int y = 0; y < height; ++y, from += fromStride, to += toStride)
      std::memcpy(to, from, rowBytes);
  }
  return success;
}

heif_error HevcDecoder::decode(heif_image** made) {
  de265_flush_data(context_.get());
  const de265_image* frame = nullptr;
  for (int more = 1; more && !frame && !exceeded_;) {
    more = 0;
    const de265_error error = de265_decode(context_.get(), &more);
    frame = de265_peek_next_picture(context_.get());
    if (error != DE265_OK) break;
  }
  if (exceeded_) return tooLarge;
  if (!frame) return damaged;
  static constexpr heif_chroma chromas[] = {heif_chroma_monochrome, heif_chroma_420,
                                            heif_chroma_422, heif_chroma_444};
  heif_image* image = nullptr;
  if (const auto error = heif_image_create(
          de265_get_image_width(frame, 0), de265_get_image_height(frame, 0),
          planesOf(frame) == 1 ? heif_colorspace_monochrome : heif_colorspace_YCbCr,
          chromas[de265_get_chroma_format(frame)], &image);
      error.code != heif_error_Ok)
    return error;
  if (const auto error = copyFrame(frame, image); error.code != heif_error_Ok) {
    heif_image_release(image);
    return error;
  }
  describeColors(frame, image);
  *made = image;
  return success;
}

constexpr int abovePriorityOfOthers = 1000;

const heif_decoder_plugin plugin{
    .plugin_api_version = 3,
    .get_plugin_name = [] { return "bounded HEVC decoder"; },
    .init_plugin = nullptr,
    .deinit_plugin = nullptr,
    .does_support_format =
        [](heif_compression_format format) {
          return format == heif_compression_HEVC ? abovePriorityOfOthers : 0;
        },
    .new_decoder =
        [](void** decoder) {
          auto made = std::make_unique<HevcDecoder>();
          if (!made->usable()) return tooLarge;
          *decoder = made.release();
          return success;
        },
    .free_decoder = [](void* decoder) { delete static_cast<HevcDecoder*>(decoder); },
    .push_data =
        [](void* decoder, const void* data, std::size_t size) {
          return static_cast<HevcDecoder*>(decoder)->push(
              {static_cast<const std::uint8_t*>(data), size});
        },
    .decode_image =
        [](void* decoder, heif_image** image) {
          return static_cast<HevcDecoder*>(decoder)->decode(image);
        },
    .set_strict_decoding = [](void*, int) {},
    .id_name = "vesko_hevc"};

}  // namespace

void boundHevcFrames(std::uint64_t maxPixels) {
  budget.limitPixels(maxPixels);
  [[maybe_unused]] static const heif_error registered = heif_register_decoder_plugin(&plugin);
}

}  // namespace vesko
