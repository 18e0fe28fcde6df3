// The routes of the tools: which path calls which operation, and how its failures are answered.
#pragma once

#include <vector>

#include "control_server/router.h"
#include "tools/accessibility_control.h"
#include "tools/app_window_control.h"
#include "tools/input_control.h"
#include "tools/photos_export.h"
#include "tools/screen_capture.h"

namespace vesko {

/// POST /ax/...; `accessibility` outlives the routes.
std::vector<Route> accessibilityRoutes(AccessibilityControl& accessibility);

/// POST /input/... and /clipboard/...; `input` outlives the routes.
std::vector<Route> inputRoutes(InputControl& input);

/// POST /app/... and /window/...; `control` outlives the routes.
std::vector<Route> appWindowRoutes(AppWindowControl& control);

/// POST /displays and /capture; `capture` outlives the routes.
std::vector<Route> captureRoutes(ScreenCaptureService& capture);

/// GET /photos/status and POST /photos/export; `photos` outlives the routes.
std::vector<Route> photosRoutes(PhotosExportService& photos);

}  // namespace vesko
