#include "tools/photos_export.h"

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "base/base64.h"
#include "base/page_memory.h"
#include "base/text.h"
#include "tools/image_scale.h"

namespace vesko {
namespace {

using Kind = ExportError::Kind;

std::unexpected<ExportError> fail(Kind kind) {
  return std::unexpected(ExportError::of(kind));
}

std::unexpected<ExportError> fail(Kind kind, std::string message) {
  return std::unexpected(ExportError{kind, std::move(message)});
}

std::unexpected<ExportError> libraryFailure(const PhotoLibraryError& error) {
  return fail(Kind::libraryFailed, error.message);
}

std::string_view lastComponent(std::string_view name) {
  while (name.ends_with('/')) name.remove_suffix(1);
  return name.substr(name.rfind('/') + 1);
}

std::string transcodedName(std::string_view originalFilename) {
  const std::string base = std::filesystem::path(lastComponent(originalFilename)).stem();
  return base.empty() ? "photo.jpg" : base + ".jpg";
}

/// The types that go out as they are; empty for every other one.
std::string_view passthroughType(const PhotoResource& resource) {
  static constexpr std::pair<std::string_view, std::string_view> extensions[] = {
      {".jpg", "image/jpeg"},
      {".jpeg", "image/jpeg"},
      {".png", "image/png"},
      {".gif", "image/gif"},
      {".webp", "image/webp"}};
  static constexpr std::pair<std::string_view, std::string_view> identifiers[] = {
      {"public.jpeg", "image/jpeg"},
      {"public.png", "image/png"},
      {"com.compuserve.gif", "image/gif"},
      {"org.webmproject.webp", "image/webp"},
      {"public.webp", "image/webp"}};
  const auto lookUp = [](const auto& table, const std::string& key) {
    const auto found = std::ranges::find(table, key, [](const auto& entry) { return entry.first; });
    return found == std::end(table) ? std::string_view() : found->second;
  };
  const std::filesystem::path name(resource.originalFilename);
  const auto byExtension = lookUp(extensions, lowerAscii(name.extension().native()));
  return byExtension.empty() ? lookUp(identifiers, lowerAscii(resource.typeIdentifier))
                             : byExtension;
}

PixelSize reduced(PixelSize size, int longestSide) {
  const double scale =
      std::min(static_cast<double>(longestSide) / std::max(size.width, size.height), 1.0);
  const auto side = [scale](int pixels) {
    return std::max(1, static_cast<int>(std::round(pixels * scale)));
  };
  return {side(size.width), side(size.height)};
}

/// An image drawn over white at some size, a few rows at a time.
class Drawing {
 public:
  Drawing(const Image& image, PixelSize size) : image_(image), size_(size) {
    if (size != image.size) scaler_.emplace(image, size);
    constexpr int blockPixels = 1 << 19;
    blockRows_ = std::clamp(blockPixels / size.width, 1, size.height);
    // The image's own rows do otherwise.
    if (!scaler_ && image.opaque) return;
    drawn_ = true;
    rows_ = PageMemory(static_cast<std::size_t>(blockRows_) * static_cast<std::size_t>(size.width) *
                       sizeof(std::uint32_t));
  }

  bool possible() const { return !drawn_ || rows_; }

  RowBlock rows(int y) {
    const int count = std::min(blockRows_, size_.height - y);
    if (!drawn_) return {image_.row(y), image_.stride, count};
    auto* out = rows_.as<std::uint32_t>();
    const std::ptrdiff_t width = size_.width;
    if (scaler_) {
      scaler_->rows(y, count, out);
    } else {
      for (int row = 0; row < count; ++row)
        std::copy_n(image_.row(y + row), width, out + row * width);
    }
    if (!image_.opaque) std::ranges::for_each_n(out, count * width, overWhite);
    return {out, width, count};
  }

 private:
  static void overWhite(std::uint32_t& pixel) {
    const std::uint32_t white = 255 - (pixel >> 24);
    pixel = (pixel | 0xFF000000U) + (white << 16 | white << 8 | white);
  }

  const Image& image_;
  const PixelSize size_;
  std::optional<ImageScaler> scaler_;
  int blockRows_ = 0;
  bool drawn_ = false;
  PageMemory rows_;
};

}  // namespace

ExportError ExportError::of(Kind kind) {
  switch (kind) {
    case Kind::permissionDenied:
      return {kind, "Photos access is not granted"};
    case Kind::assetNotFound:
      return {kind, "The requested Photos asset is not accessible"};
    case Kind::videoUnsupported:
      return {kind, "Videos are not supported in Photos v1"};
    case Kind::imageEncodingFailed:
      return {kind, "The Photos asset could not be encoded as JPEG"};
    case Kind::assetTooLarge:
      return {kind, "The Photos asset could not be reduced below maxBytes"};
    case Kind::originalUnavailable:
      return {kind, "The original Photos resource is unavailable"};
    case Kind::invalidRequest:
    case Kind::libraryFailed:
      break;
  }
  return {kind, "invalid Photos export request"};
}

bool PhotosExportService::permitted() const {
  const PhotosPermission permission = permissions_.photos();
  return permission == PhotosPermission::full || permission == PhotosPermission::limited;
}

PhotosStatusResponse PhotosExportService::status() {
  PhotosStatusResponse status;
  status.permission = permissions_.photos();
  if (!permitted()) return status;
  const auto usable = library_.check();
  status.libraryAvailable = usable.has_value();
  if (!usable) status.problem = usable.error().message;
  return status;
}

std::expected<ExportResponse, ExportError> PhotosExportService::exportPhoto(
    const ExportRequest& request) {
  const std::string uuid(trim(request.uuid));
  if (uuid.empty()) return fail(Kind::invalidRequest, "uuid is required");
  const std::int64_t wanted = request.maxBytes.value_or(maxMaxBytes);
  if (wanted < 1) return fail(Kind::invalidRequest, "maxBytes must be a positive integer");
  const auto budget = static_cast<std::size_t>(std::min(wanted, maxMaxBytes));
  if (!permitted()) return fail(Kind::permissionDenied);

  const auto asset = find(uuid);
  if (!asset) return std::unexpected(asset.error());
  const auto resource = choose(*asset);
  if (!resource) return std::unexpected(resource.error());

  const std::string_view type = passthroughType(*resource);
  if (type.empty()) return transcode(*resource, budget);
  const auto file = fetch(*resource, budget);
  if (!file) return std::unexpected(file.error());
  if (!*file) return transcode(*resource, budget);
  const std::string_view name = lastComponent(resource->originalFilename);
  ExportResponse response{.dataBase64 = {},
                          .mimeType = std::string(type),
                          .filename = name.empty() ? uuid + ".jpg" : std::string(name),
                          .width = std::max(1, asset->size.width),
                          .height = std::max(1, asset->size.height),
                          .transcoded = false};
  appendBase64(response.dataBase64, (*file)->bytes);
  return response;
}

std::expected<PhotoAsset, ExportError> PhotosExportService::find(const std::string& uuid) {
  std::vector<std::string> candidates{uuid};
  if (!uuid.contains('/')) candidates.push_back(uuid + "/L0/001");
  auto asset = library_.firstAsset(candidates);
  if (asset && !*asset) {
    auto identifier = identifiers_.find(library_, uuid);
    if (!identifier) return libraryFailure(identifier.error());
    if (!*identifier) return fail(Kind::assetNotFound);
    asset = library_.firstAsset(std::span(&**identifier, 1));
  }
  if (!asset) return libraryFailure(asset.error());
  if (!*asset) return fail(Kind::assetNotFound);
  if ((*asset)->media == PhotoMedia::video) return fail(Kind::videoUnsupported);
  if ((*asset)->media != PhotoMedia::image) return fail(Kind::assetNotFound);
  return std::move(**asset);
}

std::expected<PhotoResource, ExportError> PhotosExportService::choose(const PhotoAsset& asset) {
  auto resources = library_.resources(asset);
  if (!resources) return libraryFailure(resources.error());
  using enum PhotoResource::Kind;
  for (const auto kind : {photo, fullSizePhoto, alternatePhoto}) {
    const auto found = std::ranges::find(*resources, kind, &PhotoResource::kind);
    if (found != resources->end()) return std::move(*found);
  }
  return fail(Kind::originalUnavailable);
}

std::expected<std::optional<PhotoBytes>, ExportError> PhotosExportService::fetch(
    const PhotoResource& resource, std::size_t maxBytes) {
  auto file = library_.bytes(resource, maxBytes);
  if (file) return std::move(*file);
  return fail(Kind::originalUnavailable,
              "Could not fetch the original Photos asset: " + file.error().message);
}

std::expected<ExportResponse, ExportError> PhotosExportService::transcode(
    const PhotoResource& resource, std::size_t budget) {
  const MutexLock lock(transcoding_);
  if (cancelled_) return fail(Kind::imageEncodingFailed);
  auto file = fetch(resource, maxFileBytes);
  if (!file) return std::unexpected(file.error());
  if (!*file)
    return fail(Kind::originalUnavailable,
                "Could not fetch the original Photos asset: its file is too large");
  const auto image = codec_.decode((*file)->bytes);
  if (!image) return fail(Kind::imageEncodingFailed);
  file->reset();  // its pixels take its place

  struct Candidate {
    PixelSize size;
    double quality;
  };
  std::vector<Candidate> candidates;
  for (const double quality : fullSizeQualities) candidates.push_back({image->size, quality});
  for (const int side : reducedSides) {
    if (side < std::max(image->size.width, image->size.height))
      candidates.push_back({reduced(image->size, side), reducedQuality});
  }
  PageMemory jpeg(budget);
  if (!jpeg) return fail(Kind::imageEncodingFailed);
  for (const auto& [size, quality] : candidates) {
    Drawing drawing(*image, size);
    if (!drawing.possible()) return fail(Kind::imageEncodingFailed);
    const auto length = codec_.encodeJpeg(
        size, quality, [&](int y) { return cancelled_ ? RowBlock{} : drawing.rows(y); },
        {jpeg.data(), budget});
    if (!length && length.error() == JpegError::tooLong) continue;
    if (!length) return fail(Kind::imageEncodingFailed);
    ExportResponse response{.dataBase64 = {},
                            .mimeType = "image/jpeg",
                            .filename = transcodedName(resource.originalFilename),
                            .width = size.width,
                            .height = size.height,
                            .transcoded = true};
    appendBase64(response.dataBase64, {jpeg.data(), *length});
    return response;
  }
  return fail(Kind::assetTooLarge);
}

}  // namespace vesko
