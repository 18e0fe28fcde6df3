// One picture of the user's photo library under a byte budget: the file as it is where that fits,
// else a JPEG of falling quality, then of falling size.
//
// Any thread, several at once. What goes out as it is takes no more than its budget. All else is
// fetched, decoded and reduced one after another, so that one picture's memory, its file and its
// pixels, is the most that all requests together take beside that.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

#include "base/json_record.h"
#include "base/mutex.h"
#include "platform/permissions.h"
#include "platform/photo_library.h"
#include "platform/picture_codec.h"
#include "tools/photo_identifiers.h"

namespace vesko {

struct ExportRequest {
  std::string uuid;
  std::optional<std::int64_t> maxBytes;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("uuid", &ExportRequest::uuid),
                      json::field("maxBytes", &ExportRequest::maxBytes)};
  }
};

struct ExportResponse {
  std::string dataBase64;
  std::string mimeType;
  std::string filename;
  std::int64_t width = 0;  ///< pixels of the returned picture
  std::int64_t height = 0;
  bool transcoded = false;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("dataBase64", &ExportResponse::dataBase64),
                      json::field("mimeType", &ExportResponse::mimeType),
                      json::field("filename", &ExportResponse::filename),
                      json::field("width", &ExportResponse::width),
                      json::field("height", &ExportResponse::height),
                      json::field("transcoded", &ExportResponse::transcoded)};
  }
};

/// What can be expected of an export now.
struct PhotosStatusResponse {
  PhotosPermission permission = PhotosPermission::notDetermined;
  bool libraryAvailable = false;       ///< the library was found and can be asked
  std::optional<std::string> problem;  ///< why it cannot; absent too while it may not be asked
  static constexpr auto jsonFields() {
    return std::tuple{json::field("permission", &PhotosStatusResponse::permission),
                      json::field("libraryAvailable", &PhotosStatusResponse::libraryAvailable),
                      json::field("problem", &PhotosStatusResponse::problem)};
  }
};

struct ExportError {
  enum class Kind {
    invalidRequest,
    originalUnavailable,
    permissionDenied,
    assetNotFound,
    videoUnsupported,
    imageEncodingFailed,
    assetTooLarge,
    libraryFailed,  ///< the library could not be asked
  };
  Kind kind;
  std::string message;

  /// A kind whose message is always the same.
  static ExportError of(Kind kind);
};

class PhotosExportService {
 public:
  static constexpr std::int64_t maxMaxBytes = 4'500'000;
  /// Larger originals are not fetched.
  static constexpr std::size_t maxFileBytes = 256 << 20;
  static constexpr std::array<double, 3> fullSizeQualities = {0.85, 0.7, 0.55};
  static constexpr std::array<int, 3> reducedSides = {4096, 2048, 1600};
  static constexpr double reducedQuality = 0.55;

  /// All three outlive the service.
  PhotosExportService(PhotoLibrary& library, PictureCodec& codec, PermissionProbes& permissions)
      : library_(library), codec_(codec), permissions_(permissions) {}

  PhotosStatusResponse status();
  std::expected<ExportResponse, ExportError> exportPhoto(const ExportRequest& request);

  /// For good: the application ends. Pictures are no longer reduced, and what is under way ends as
  /// imageEncodingFailed within a few rows, or once its picture is decoded.
  void cancel() { cancelled_ = true; }

 private:
  template <class T>
  using Result = std::expected<T, ExportError>;

  bool permitted() const;
  Result<PhotoAsset> find(const std::string& uuid);
  Result<PhotoResource> choose(const PhotoAsset& asset);
  /// Nothing when the file is longer than `maxBytes`.
  Result<std::optional<PhotoBytes>> fetch(const PhotoResource& resource, std::size_t maxBytes);
  Result<ExportResponse> transcode(const PhotoResource& resource, std::size_t budget);

  PhotoLibrary& library_;
  PictureCodec& codec_;
  PermissionProbes& permissions_;
  AssetIdentifierIndex identifiers_;
  Mutex transcoding_;
  std::atomic<bool> cancelled_ = false;
};

}  // namespace vesko
