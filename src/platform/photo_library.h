// The user's photo library: its assets, the files that belong to them and the bytes of these.
#pragma once

#include <cstddef>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/image.h"

namespace vesko {

enum class PhotoMedia { unknown, image, video };

struct PhotoAsset {
  std::string localIdentifier;
  PhotoMedia media = PhotoMedia::unknown;
  PixelSize size;  ///< as the picture is seen; 0 where the library does not know
};

struct PhotoResource {
  enum class Kind {
    photo,           ///< as it came from the camera
    fullSizePhoto,   ///< with the user's edits
    alternatePhoto,  ///< the other half of a pair, as RAW beside JPEG
  };
  Kind kind = Kind::photo;
  std::string originalFilename;  ///< valid UTF-8; empty where the library does not know
  std::string typeIdentifier;    ///< as "public.jpeg"; the same
  std::string location;          ///< the library's own; means nothing outside of it
};

/// A file in memory. `storage` keeps `bytes` valid.
struct PhotoBytes {
  std::span<const std::byte> bytes;
  std::shared_ptr<const void> storage;
};

/// A text for people; it names no file of the user.
struct PhotoLibraryError {
  std::string message;
};

/// Any thread, several at once. An asset that is in the trash, or that the user has hidden, is not
/// there.
class PhotoLibrary {
 public:
  template <class T>
  using Result = std::expected<T, PhotoLibraryError>;

  virtual ~PhotoLibrary() = default;

  /// Whether the library could be asked now.
  virtual Result<void> check() = 0;
  /// The asset of the first identifier that has one, matched exactly.
  virtual Result<std::optional<PhotoAsset>> firstAsset(
      std::span<const std::string> localIdentifiers) = 0;
  /// Every asset's local identifier, in the library's own order.
  virtual Result<void> forEachIdentifier(
      const std::function<void(std::string_view localIdentifier)>& visit) = 0;
  virtual Result<std::vector<PhotoResource>> resources(const PhotoAsset& asset) = 0;
  /// The whole file, or nothing when it is longer than `maxBytes`, of which no more than that is
  /// ever held; an error when it is not on this machine.
  virtual Result<std::optional<PhotoBytes>> bytes(const PhotoResource& resource,
                                                  std::size_t maxBytes) = 0;
};

}  // namespace vesko
