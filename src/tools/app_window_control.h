// Launches, activates and quits applications; lists, focuses, moves, resizes and minimises windows
// and toggles their full screen.
//
// Called from several worker threads at once: one lock guards what is remembered of the windows
// that were listed, and none is held while the desktop acts. Borrows its services, which outlive
// it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <expected>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/geometry.h"
#include "base/json_record.h"
#include "base/mutex.h"
#include "platform/applications.h"
#include "tools/tool_response.h"

namespace vesko {

/// Names one application by exactly one of the two. A name is that of a running application first,
/// then of an installed one; where several differ in case alone, the exact one counts, and else
/// case does not matter.
struct AppRequest {
  std::optional<std::string> bundleID = {};
  std::optional<std::string> name = {};
  static constexpr auto jsonFields() {
    return std::tuple{json::field("bundle_id", &AppRequest::bundleID),
                      json::field("name", &AppRequest::name)};
  }
};

struct AppLaunchResponse {
  bool ok = true;
  std::int64_t pid = 0;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("ok", &AppLaunchResponse::ok),
                      json::field("pid", &AppLaunchResponse::pid)};
  }
};

/// The number that the window list gave the window.
struct WindowRequest {
  std::int64_t windowID = 0;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("window_id", &WindowRequest::windowID)};
  }
};

/// The new top left corner, screen points.
struct WindowMoveRequest {
  std::int64_t windowID = 0;
  double x = 0;
  double y = 0;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("window_id", &WindowMoveRequest::windowID),
                      json::field("x", &WindowMoveRequest::x),
                      json::field("y", &WindowMoveRequest::y)};
  }
};

/// Points.
struct WindowResizeRequest {
  std::int64_t windowID = 0;
  double w = 0;
  double h = 0;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("window_id", &WindowResizeRequest::windowID),
                      json::field("w", &WindowResizeRequest::w),
                      json::field("h", &WindowResizeRequest::h)};
  }
};

struct WindowInfo {
  std::string bundleID;  ///< empty when the application has none
  std::string title;
  std::uint32_t windowID = 0;
  Rect frame;
  bool focused = false;
  bool minimized = false;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("bundle_id", &WindowInfo::bundleID),
                      json::field("title", &WindowInfo::title),
                      json::field("window_id", &WindowInfo::windowID),
                      json::field("frame", &WindowInfo::frame),
                      json::field("focused", &WindowInfo::focused),
                      json::field("minimized", &WindowInfo::minimized)};
  }
};

/// Front to back.
struct WindowListResponse {
  std::vector<WindowInfo> windows;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("windows", &WindowListResponse::windows)};
  }
};

/// One window of one instance of an application: neither a later process with the same pid nor
/// another window with the same number is mistaken for it.
struct WindowHandle {
  pid_t pid = 0;  ///< 0 when the desktop could not tell whose window it is
  std::string bundleIdentifier = {};
  std::string processStartToken = {};
  std::uint32_t number = 0;
};

class AppWindowControl {
 public:
  struct ControlError {
    enum class Kind { invalid, launchFailed, axFailure, applicationNotFound, windowNotFound };

    Kind kind = Kind::invalid;
    /// The text of `invalid` and `launchFailed`, the operation of `axFailure`.
    std::string detail = {};
    std::int32_t code = 0;  ///< axFailure only

    static ControlError invalid(std::string message) { return {Kind::invalid, std::move(message)}; }
    static ControlError launchFailed(std::string text) {
      return {Kind::launchFailed, std::move(text)};
    }
    static ControlError axFailure(std::string operation, AXError error) {
      return {Kind::axFailure, std::move(operation), static_cast<std::int32_t>(error)};
    }
    static ControlError of(Kind kind) { return {kind}; }
    std::string message() const;
    bool operator==(const ControlError&) const = default;
  };
  template <class T>
  using Result = std::expected<T, ControlError>;

  AppWindowControl(Applications& applications, WindowSystem& windows)
      : applications_(applications), windows_(windows) {}

  Result<AppLaunchResponse> launch(const AppRequest& request);
  /// Of several instances the one whose window is in front. False when it did not come.
  Result<bool> activate(const AppRequest& request);
  /// All instances. False when one of them refused.
  Result<bool> quit(const AppRequest& request);

  /// The windows of one application, or of all when the request names none.
  Result<WindowListResponse> list(const AppRequest& request);
  Result<OKResponse> focus(const WindowRequest& request);
  Result<OKResponse> move(const WindowMoveRequest& request);
  Result<OKResponse> resize(const WindowResizeRequest& request);
  Result<OKResponse> minimize(const WindowRequest& request);
  Result<OKResponse> toggleFullScreen(const WindowRequest& request);

 private:
  /// How an operation is called in a failure, and what a refused argument of it is told.
  struct Operation {
    std::string_view name;
    std::string_view invalidArgument = {};
  };
  struct Listed {
    WindowHandle handle;
    std::uint64_t listing = 0;
  };

  Result<std::vector<RunningApplication>> resolveRunning(const AppRequest& request);
  std::vector<RunningApplication> runningNamed(const std::string& name);
  std::optional<InstalledApplication> installedNamed(const std::string& name);
  RunningApplication frontmostOf(const std::vector<RunningApplication>& instances);

  void remember(const std::vector<DesktopWindow>& windows,
                const std::unordered_map<pid_t, const RunningApplication*>& owners);
  Result<std::uint32_t> resolve(std::int64_t windowID, std::string_view operation);
  Result<OKResponse> operate(std::int64_t windowID, const Operation& operation,
                             const std::function<AXError(std::uint32_t)>& act);

  Applications& applications_;
  WindowSystem& windows_;
  Mutex mutex_;
  std::unordered_map<std::uint32_t, Listed> listed_ VESKO_GUARDED_BY(mutex_);
  std::uint64_t listings_ VESKO_GUARDED_BY(mutex_) = 0;
};

}  // namespace vesko
