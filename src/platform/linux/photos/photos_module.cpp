#include "platform/linux/photos/photos_module.h"

#include <dlfcn.h>

namespace vesko {
namespace {

PhotoLibraryError missing() {
  return {"The part that reads Photos libraries is missing"};
}

}  // namespace

const PhotosBackEnd* LinuxPhotos::loaded() {
  const MutexLock lock(mutex_);
  if (!backEnd_.library) {
    void* module = ::dlopen(module_.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    void* entry = module ? ::dlsym(module, photosModuleEntry) : nullptr;
    if (!entry) return nullptr;
    reinterpret_cast<MakePhotosBackEnd*>(entry)(location_, backEnd_);
  }
  // Never changed again.
  return &backEnd_;
}

std::expected<void, PhotoLibraryError> LinuxPhotos::check() {
  const auto* backEnd = loaded();
  return backEnd ? backEnd->library->check() : std::unexpected(missing());
}

std::expected<std::optional<PhotoAsset>, PhotoLibraryError> LinuxPhotos::firstAsset(
    std::span<const std::string> localIdentifiers) {
  const auto* backEnd = loaded();
  return backEnd ? backEnd->library->firstAsset(localIdentifiers) : std::unexpected(missing());
}

std::expected<void, PhotoLibraryError> LinuxPhotos::forEachIdentifier(
    const std::function<void(std::string_view)>& visit) {
  const auto* backEnd = loaded();
  return backEnd ? backEnd->library->forEachIdentifier(visit) : std::unexpected(missing());
}

std::expected<std::vector<PhotoResource>, PhotoLibraryError> LinuxPhotos::resources(
    const PhotoAsset& asset) {
  const auto* backEnd = loaded();
  return backEnd ? backEnd->library->resources(asset) : std::unexpected(missing());
}

std::expected<std::optional<PhotoBytes>, PhotoLibraryError> LinuxPhotos::bytes(
    const PhotoResource& resource, std::size_t maxBytes) {
  const auto* backEnd = loaded();
  return backEnd ? backEnd->library->bytes(resource, maxBytes) : std::unexpected(missing());
}

std::expected<Image, PictureError> LinuxPhotos::decode(std::span<const std::byte> file) {
  const auto* backEnd = loaded();
  return backEnd ? backEnd->codec->decode(file) : std::unexpected(PictureError::unsupported);
}

std::expected<std::size_t, JpegError> LinuxPhotos::encodeJpeg(PixelSize size, double quality,
                                                              const RowSource& rows,
                                                              std::span<std::byte> out) {
  const auto* backEnd = loaded();
  return backEnd ? backEnd->codec->encodeJpeg(size, quality, rows, out)
                 : std::unexpected(JpegError::failed);
}

}  // namespace vesko
