// What an action changed: the scene is looked at before and after it, so that the answer says what
// was confirmed instead of that something was sent. Any thread.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/geometry.h"
#include "helper/mcp/tool.h"

namespace vesko::mcp {

/// A window as /window/list tells of it.
struct WindowState {
  std::int64_t id = 0;
  std::string bundleId = {};
  std::string title = {};
  Rect frame = {};
  bool focused = false;
  bool minimized = false;

  std::string describe() const;
};

std::expected<std::vector<WindowState>, LinkError> readWindows(const ToolCall& call,
                                                               json::Object filter = {});

/// The windows of all applications, and the elements of one.
struct Scene {
  struct Element {
    std::string name = {};  ///< role and title, for people
    std::string title = {};
    std::string value = {};
    std::string state = {};  ///< enabled, focused
    std::string frame = {};
    bool focused = false;
  };

  std::optional<std::vector<WindowState>> windows;  ///< nothing when they could not be read
  std::map<std::string, Element> elements;          ///< by their path below the root
  std::string root;                                 ///< the root's path
  std::string problem;                              ///< why the elements could not be read
  bool gone = false;                                ///< because what was to be looked at is gone

  const Element* focusedElement() const;
  const WindowState* windowInFront() const;
};

struct SceneOptions {
  /// The part to look at; the window in front when empty.
  std::string element = {};
  /// Whether something that only moved counts, as after scrolling.
  bool frames = false;
  bool windowsOnly = false;
};

Scene readScene(const ToolCall& call, const SceneOptions& options);

/// What differs, the most telling first; short sentences.
std::vector<std::string> changes(const Scene& before, const Scene& after, bool frames);

enum class Outcome { confirmed, unchanged, notVerifiable };

/// The answer of every action.
ToolResult outcomeResult(Outcome outcome, std::string detail);

/// How long an effect is waited for.
inline constexpr std::chrono::milliseconds effectBound{500};

/// Calls `look` until it is true, the bound has passed or the call is cancelled; says which.
bool becomes(const ToolCall& call, std::chrono::milliseconds bound,
             const std::function<bool()>& look);

using Act = std::function<std::expected<void, LinkError>()>;

/// What is answered when nothing differs.
ToolResult nothingDiffers();

/// Looks, acts, looks again until something differs, and says what.
ToolResult actAndCompare(const ToolCall& call, const SceneOptions& options, const Act& act,
                         ToolResult otherwise = nothingDiffers());

}  // namespace vesko::mcp
