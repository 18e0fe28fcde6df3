// Captures the screen of $DISPLAY on request and says how long it took as the helper sees it: one
// request line on standard input, "MAX_DIM", is one POST /capture over pinned TLS, from connecting
// to the parsed answer. It answers "MILLISECONDS PNG_BYTES". With the argument "stages" it measures
// each stage of a capture instead, once.
#include <fmt/core.h>

#include <chrono>
#include <iostream>
#include <string>
#include <vector>

#include "base/base64.h"
#include "control_server/tool_routes.h"
#include "pinned_server.h"
#include "platform/linux/x11_screen_source.h"
#include "tools/image_scale.h"
#include "tools/png_encoder.h"
#include "tools/screen_capture.h"

namespace vesko {
namespace {

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point begin) {
  return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

/// The best of several calls: what the stage costs when nothing disturbs it.
template <class Stage>
double bestOf(int rounds, const Stage& stage) {
  double best = 1e9;
  for (int round = 0; round < rounds; ++round) {
    const auto begin = Clock::now();
    stage();
    best = std::min(best, millisecondsSince(begin));
  }
  return best;
}

int measureStages(X11ScreenSource& source) {
  const auto displays = source.displays();
  if (!displays || displays->empty()) return 1;
  const ScreenDisplay& display = displays->front();
  const PixelSize size{display.pixelsWide, display.pixelsHigh};
  const auto grab = [&] { return source.captureDisplay(display.id, display.bounds, size); };
  fmt::print("grab             {:.2f} ms\n", bestOf(15, grab));
  const auto image = grab();
  if (!image) return 1;
  const PixelSize smaller{1600, 1600 * size.height / size.width};
  fmt::print("scale to 1600    {:.2f} ms\n",
             bestOf(15, [&] { (void)scaleImage(*image, smaller); }));
  const auto scaled = scaleImage(*image, smaller);
  for (const auto& [name, picture] :
       {std::pair{"PNG, full size", *image}, {"PNG, 1600", *scaled}}) {
    std::size_t bytes = 0;
    const double time = bestOf(15, [&] { bytes = encodePng(picture)->size; });
    fmt::print("{:<16} {:.2f} ms, {} bytes\n", name, time, bytes);
  }
  const auto png = encodePng(*image);
  fmt::print("base64           {:.2f} ms\n", bestOf(15, [&] {
               std::string text;
               appendBase64(text, png->bytes());
             }));
  return 0;
}

int answerRequests(X11ScreenSource& source) {
  bench::Granted probes;
  ScreenRecordingProcessState state(probes);
  ScreenCaptureService service(source, state);
  const auto server = bench::PinnedServer::start(captureRoutes(service), probes);
  if (!server) return 1;

  for (std::int64_t maxDimension = 0; std::cin >> maxDimension;) {
    const auto answer = server->post(
        "/capture", fmt::format(R"({{"target":"display","max_dim":{}}})", maxDimension));
    const json::Value* png = answer ? answer->body.find("png_base64") : nullptr;
    const auto file = png ? decodeBase64(*png->asString()) : std::nullopt;
    if (!file) {
      fmt::print(stderr, "capture_bench: {}\n", answer ? "no picture" : answer.error());
      return 1;
    }
    fmt::print("{:.3f} {}\n", answer->milliseconds, file->size());
    std::fflush(stdout);
  }
  return 0;
}

}  // namespace
}  // namespace vesko

int main(int argc, char** argv) {
  vesko::X11ScreenSource source;
  const bool stages = argc > 1 && std::string(argv[1]) == "stages";
  return stages ? vesko::measureStages(source) : vesko::answerRequests(source);
}
