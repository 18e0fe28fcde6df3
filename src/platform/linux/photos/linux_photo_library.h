// A Photos library package (`.photoslibrary`) read as it lies on the disk: its catalogue and its
// `originals`. Nothing in it is ever changed, created or locked for longer than a question takes.
// Any thread, several at once.
//
// The catalogue's write-ahead log is honoured. While another program writes, a question that met a
// change is asked again, a few times, and then declined. What is only in the cloud is not here: an
// edited picture, `resources/renders`, takes the place of an original that is missing.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>

#include "platform/photo_library.h"

namespace vesko {

class LinuxPhotoLibrary : public PhotoLibrary {
 public:
  /// Where the package is now; nothing for no library. Any thread, asked for every call.
  using Location = std::function<std::optional<std::filesystem::path>()>;

  explicit LinuxPhotoLibrary(Location location) : location_(std::move(location)) {}

  Result<void> check() override;
  Result<std::optional<PhotoAsset>> firstAsset(
      std::span<const std::string> localIdentifiers) override;
  Result<void> forEachIdentifier(const std::function<void(std::string_view)>& visit) override;
  Result<std::vector<PhotoResource>> resources(const PhotoAsset& asset) override;
  Result<std::optional<PhotoBytes>> bytes(const PhotoResource& resource,
                                          std::size_t maxBytes) override;

 private:
  Location location_;
};

}  // namespace vesko
