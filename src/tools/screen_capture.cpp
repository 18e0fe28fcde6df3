#include "tools/screen_capture.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "base/base64.h"
#include "base/text.h"
#include "tools/image_scale.h"
#include "tools/png_encoder.h"

namespace vesko {
namespace {

using Kind = CaptureError::Kind;

std::unexpected<CaptureError> fail(Kind kind) {
  return std::unexpected(CaptureError::of(kind));
}

/// A decimal number without a minus sign; "-0" is none.
std::optional<std::uint32_t> parseDisplayNumber(std::string_view text) {
  if (text.starts_with('-')) return std::nullopt;
  const auto number = parseDecimal(text);
  if (!number || !std::in_range<std::uint32_t>(*number)) return std::nullopt;
  return static_cast<std::uint32_t>(*number);
}

int outputSide(double points, double scale) {
  return static_cast<int>(std::clamp(std::round(points * scale), 1.0, 1e9));
}

double intersectionArea(const Rect& a, const Rect& b) {
  const double width = std::min(a.x + a.w, b.x + b.w) - std::max(a.x, b.x);
  const double height = std::min(a.y + a.h, b.y + b.h) - std::max(a.y, b.y);
  return std::max(width, 0.0) * std::max(height, 0.0);
}

double windowScale(const BackingScreens& screens, const Rect& frame) {
  if (screens.all.empty()) return screens.mainScale.value_or(1.0);
  const auto largest = std::ranges::max_element(
      screens.all, {},
      [&frame](const BackingScreen& screen) { return intersectionArea(screen.frame, frame); });
  return largest->scale;
}

bool isInside(const Rect& rect, const ScreenDisplay& display) {
  return rect.w > 0 && rect.h > 0 && rect.x >= 0 && rect.y >= 0 &&
         rect.x + rect.w <= display.bounds.w && rect.y + rect.h <= display.bounds.h;
}

PixelSize fittedSize(PixelSize size, int maxDimension) {
  const int longest = std::max(size.width, size.height);
  if (maxDimension >= longest) return size;
  const double ratio = static_cast<double>(maxDimension) / longest;
  return {outputSide(size.width, ratio), outputSide(size.height, ratio)};
}

double pixelsPerPoint(int pixels, double points) {
  return points <= 0 ? 1.0 : pixels / points;
}

std::optional<double> beyondZero(double place) {
  return place == 0 ? std::nullopt : std::optional(place);
}

}  // namespace

CaptureError CaptureError::of(Kind kind) {
  switch (kind) {
    case Kind::invalidRequest:
      break;
    case Kind::displayNotFound:
      return {kind, "display not found"};
    case Kind::windowNotFound:
      return {kind, "window not found"};
    case Kind::permissionDenied:
      return {kind, "screen recording permission is not active"};
    case Kind::captureFailed:
      return {kind, "screen capture failed"};
    case Kind::imageEncodingFailed:
      return {kind, "could not encode screen capture as PNG"};
  }
  return {kind, "invalid capture request"};
}

std::expected<DisplayListResponse, CaptureError> ScreenCaptureService::listDisplays() {
  const auto displays = source_.displays();
  if (!displays) return fail(Kind::captureFailed);
  DisplayListResponse response;
  for (const ScreenDisplay& display : *displays) {
    // A display without an extent still counts as one point a side.
    const double width = std::max(display.bounds.w, 1.0);
    const double height = std::max(display.bounds.h, 1.0);
    response.displays.push_back(
        {.id = std::to_string(display.id),
         .width = std::llround(width),
         .height = std::llround(height),
         .scale = std::min(display.pixelsWide / width, display.pixelsHigh / height),
         .primary = display.primary,
         .x = beyondZero(display.bounds.x),
         .y = beyondZero(display.bounds.y)});
  }
  return response;
}

std::expected<ScreenDisplay, CaptureError> ScreenCaptureService::resolveDisplay(
    const std::optional<std::string>& displayID) {
  const auto number = displayID ? parseDisplayNumber(*displayID) : std::optional<std::uint32_t>();
  if (displayID && !number) return fail(Kind::displayNotFound);
  auto displays = source_.displays();
  if (!displays) return std::unexpected(errorOf(displays.error()));
  const auto found = std::ranges::find_if(*displays, [&number](const ScreenDisplay& display) {
    return number ? display.id == *number : display.primary;
  });
  if (found == displays->end()) return fail(Kind::displayNotFound);
  return *found;
}

std::expected<CaptureResponse, CaptureError> ScreenCaptureService::capture(
    const CaptureRequest& request) {
  if (!permission_.probeAllowsCapture()) return fail(Kind::permissionDenied);
  const std::int64_t maxDimension = request.maxDimension.value_or(defaultMaxDimension);
  if (maxDimension < 1 || maxDimension > maxMaxDimension)
    return std::unexpected(CaptureError::invalidRequest("max_dim must be between 1 and 16384"));

  auto shot = request.target == CaptureRequest::Target::window ? shootWindow(request)
                                                               : shootDisplay(request);
  if (!shot) return std::unexpected(std::move(shot.error()));

  Image image = std::move(shot->image);
  if (const PixelSize size = fittedSize(image.size, static_cast<int>(maxDimension));
      size != image.size) {
    auto scaled = scaleImage(image, size);
    if (!scaled) return fail(Kind::captureFailed);
    image = std::move(*scaled);
  }
  auto png = encodePng(image);
  if (!png) return fail(Kind::imageEncodingFailed);

  CaptureResponse response;
  response.width = image.size.width;
  response.height = image.size.height;
  response.scale = std::min(pixelsPerPoint(image.size.width, shot->pointWidth),
                            pixelsPerPoint(image.size.height, shot->pointHeight));
  image = {};  // the pixels are the largest part of a capture's memory
  appendBase64(response.pngBase64, png->bytes());
  return response;
}

CaptureError ScreenCaptureService::errorOf(ScreenSourceError error) {
  switch (error) {
    case ScreenSourceError::displayGone:
      return CaptureError::of(Kind::displayNotFound);
    case ScreenSourceError::windowGone:
      return CaptureError::of(Kind::windowNotFound);
    case ScreenSourceError::failed:
    case ScreenSourceError::declined:
      break;
  }
  // A permission withdrawn meanwhile is the likeliest reason, and the one the user can act on.
  if (!permission_.probeAllowsCapture() || error == ScreenSourceError::declined)
    return CaptureError::of(Kind::permissionDenied);
  return CaptureError::of(Kind::captureFailed);
}

ScreenCaptureService::ShotResult ScreenCaptureService::finish(ScreenSource::Result<Image> image,
                                                              PixelSize output,
                                                              const Rect& points) {
  if (!image) return std::unexpected(errorOf(image.error()));
  if (image->size != output) {
    auto scaled = scaleImage(*image, output);
    if (!scaled) return fail(Kind::captureFailed);
    image = std::move(*scaled);
  }
  return Shot{std::move(*image), points.w, points.h};
}

ScreenCaptureService::ShotResult ScreenCaptureService::shootDisplay(const CaptureRequest& request) {
  const auto display = resolveDisplay(request.displayID);
  if (!display) return std::unexpected(display.error());
  Rect area{0, 0, display->bounds.w, display->bounds.h};
  if (request.target == CaptureRequest::Target::region) {
    if (!request.rect || !isInside(*request.rect, *display))
      return std::unexpected(CaptureError::invalidRequest(
          "region capture requires a positive rect inside the target display"));
    area = *request.rect;
  }
  const double scale = pixelsPerPoint(display->pixelsWide, display->bounds.w);
  const PixelSize output{outputSide(area.w, scale), outputSide(area.h, scale)};
  return finish(source_.captureDisplay(display->id, area, output), output, area);
}

ScreenCaptureService::ShotResult ScreenCaptureService::shootWindow(const CaptureRequest& request) {
  if (!request.windowID || !std::in_range<std::uint32_t>(*request.windowID))
    return fail(Kind::windowNotFound);
  const auto window = static_cast<std::uint32_t>(*request.windowID);
  const auto frame = source_.windowFrame(window);
  if (!frame) return std::unexpected(errorOf(frame.error()));
  const auto screens = source_.backingScreens();
  if (!screens) return std::unexpected(errorOf(screens.error()));
  const double scale = windowScale(*screens, *frame);
  const PixelSize output{outputSide(frame->w, scale), outputSide(frame->h, scale)};
  return finish(source_.captureWindow(window, output), output, *frame);
}

}  // namespace vesko
