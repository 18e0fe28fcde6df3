// Lists the displays and captures a display, a window or a region as a PNG image.
#pragma once

#include <array>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "base/geometry.h"
#include "base/json_record.h"
#include "platform/screen_source.h"
#include "tools/screen_recording_state.h"

namespace vesko {

struct CaptureRequest {
  enum class Target { display, window, region };

  Target target = Target::display;
  std::optional<std::string> displayID = {};  ///< decimal; the main display when absent
  std::optional<std::int64_t> windowID = {};
  std::optional<Rect> rect = {};  ///< points from the top left corner of the display
  std::optional<std::int64_t> maxDimension = {};

  static constexpr auto jsonFields() {
    return std::tuple{json::field("target", &CaptureRequest::target),
                      json::field("display_id", &CaptureRequest::displayID),
                      json::field("window_id", &CaptureRequest::windowID),
                      json::field("rect", &CaptureRequest::rect),
                      json::field("max_dim", &CaptureRequest::maxDimension)};
  }
};

template <>
struct json::EnumNames<CaptureRequest::Target> {
  static constexpr std::array values{
      std::pair{CaptureRequest::Target::display, std::string_view("display")},
      std::pair{CaptureRequest::Target::window, std::string_view("window")},
      std::pair{CaptureRequest::Target::region, std::string_view("region")}};
};

struct CaptureResponse {
  std::string pngBase64;
  int width = 0;     ///< pixels of the returned image
  int height = 0;    ///< likewise
  double scale = 1;  ///< pixels of the returned image for a point

  static constexpr auto jsonFields() {
    return std::tuple{json::field("png_base64", &CaptureResponse::pngBase64),
                      json::field("width", &CaptureResponse::width),
                      json::field("height", &CaptureResponse::height),
                      json::field("scale", &CaptureResponse::scale)};
  }
};

struct DisplayInfo {
  std::string id;
  std::int64_t width = 0;   ///< points
  std::int64_t height = 0;  ///< points
  double scale = 1;         ///< pixels for a point
  bool primary = false;
  /// Top left corner in global points, left out where it is 0.
  std::optional<double> x = {};
  std::optional<double> y = {};

  static constexpr auto jsonFields() {
    return std::tuple{json::field("id", &DisplayInfo::id),
                      json::field("width", &DisplayInfo::width),
                      json::field("height", &DisplayInfo::height),
                      json::field("scale", &DisplayInfo::scale),
                      json::field("primary", &DisplayInfo::primary),
                      json::field("x", &DisplayInfo::x),
                      json::field("y", &DisplayInfo::y)};
  }
};

struct DisplayListResponse {
  std::vector<DisplayInfo> displays;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("displays", &DisplayListResponse::displays)};
  }
};

struct CaptureError {
  enum class Kind {
    invalidRequest,
    displayNotFound,
    windowNotFound,
    permissionDenied,
    captureFailed,
    imageEncodingFailed,
  };

  Kind kind;
  std::string message;  ///< what the caller is told

  static CaptureError invalidRequest(std::string message) {
    return {Kind::invalidRequest, std::move(message)};
  }
  /// Every other kind has one message of its own.
  static CaptureError of(Kind kind);
};

/// Any thread, several at once: holds no lock while it captures.
class ScreenCaptureService {
 public:
  static constexpr int maxMaxDimension = 16384;
  static constexpr int defaultMaxDimension = 1600;

  ScreenCaptureService(ScreenSource& source, ScreenRecordingProcessState& permission)
      : source_(source), permission_(permission) {}

  std::expected<DisplayListResponse, CaptureError> listDisplays();
  std::expected<CaptureResponse, CaptureError> capture(const CaptureRequest& request);

 private:
  struct Shot {
    Image image;
    double pointWidth = 0;
    double pointHeight = 0;
  };
  using ShotResult = std::expected<Shot, CaptureError>;

  ShotResult shootDisplay(const CaptureRequest& request);
  ShotResult shootWindow(const CaptureRequest& request);
  std::expected<ScreenDisplay, CaptureError> resolveDisplay(
      const std::optional<std::string>& displayID);
  /// `output` is the size that was asked for, `points` what it shows.
  ShotResult finish(ScreenSource::Result<Image> image, PixelSize output, const Rect& points);
  CaptureError errorOf(ScreenSourceError error);

  ScreenSource& source_;
  ScreenRecordingProcessState& permission_;
};

}  // namespace vesko
