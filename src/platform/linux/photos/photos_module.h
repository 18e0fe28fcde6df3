// The module of the bundle that reads photo libraries and picture files. It is loaded at first use:
// its libraries, of which a video codec is one, would be most of what an idle companion holds.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "base/mutex.h"
#include "platform/linux/photos/linux_photo_library.h"
#include "platform/photo_library.h"
#include "platform/picture_codec.h"

namespace vesko {

/// What the module makes.
struct PhotosBackEnd {
  std::unique_ptr<PhotoLibrary> library;
  std::unique_ptr<PictureCodec> codec;
};

/// The module's only entry, under `photosModuleEntry`.
using MakePhotosBackEnd = void(const LinuxPhotoLibrary::Location& location, PhotosBackEnd& made);
inline constexpr const char* photosModuleEntry = "veskoMakePhotosBackEnd";

/// Stands for the module, which stays loaded once it is. Any thread, several at once.
class LinuxPhotos final : public PhotoLibrary, public PictureCodec {
 public:
  LinuxPhotos(std::filesystem::path module, LinuxPhotoLibrary::Location location)
      : module_(std::move(module)), location_(std::move(location)) {}

  Result<void> check() override;
  Result<std::optional<PhotoAsset>> firstAsset(
      std::span<const std::string> localIdentifiers) override;
  Result<void> forEachIdentifier(const std::function<void(std::string_view)>& visit) override;
  Result<std::vector<PhotoResource>> resources(const PhotoAsset& asset) override;
  Result<std::optional<PhotoBytes>> bytes(const PhotoResource& resource,
                                          std::size_t maxBytes) override;

  std::expected<Image, PictureError> decode(std::span<const std::byte> file) override;
  std::expected<std::size_t, JpegError> encodeJpeg(PixelSize size, double quality,
                                                   const RowSource& rows,
                                                   std::span<std::byte> out) override;

 private:
  /// Null when the module cannot be loaded.
  const PhotosBackEnd* loaded();

  const std::filesystem::path module_;
  const LinuxPhotoLibrary::Location location_;
  Mutex mutex_;
  PhotosBackEnd backEnd_ VESKO_GUARDED_BY(mutex_);
};

}  // namespace vesko
