// What the X server of $DISPLAY and its window manager offer. Only reads; any thread, and as long
// as the server takes to answer.
//
// Window managers: the Extended Window Manager Hints of freedesktop.org.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vesko {

struct DisplayReport {
  struct Screen {
    int width = 0;  ///< pixels
    int height = 0;
  };
  std::vector<Screen> screens;
  std::vector<std::string> missingExtensions;  ///< of those that were asked for
  struct WindowManager {
    std::string name;                       ///< as it calls itself; may be empty
    std::vector<std::string> missingHints;  ///< of those that were asked for
  };
  std::optional<WindowManager> windowManager;
};

/// Nothing when the server cannot be reached or does not let this user in.
std::optional<DisplayReport> reportDisplay(const std::vector<std::string_view>& extensions,
                                           const std::vector<std::string_view>& hints);

}  // namespace vesko
