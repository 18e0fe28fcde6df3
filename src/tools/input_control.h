// Pointer, keyboard and clipboard requests: validation, then events for the desktop.
//
// Called from several worker threads at once. One mutex is held while a request's events are
// posted, so two requests never interleave theirs, and a paste and its key stay together; reading
// the clipboard does not take it. Borrows its services, which outlive it.
#pragma once

#include <expected>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "base/json_record.h"
#include "base/mutex.h"
#include "platform/input_events.h"
#include "platform/pasteboard.h"
#include "tools/tool_response.h"

namespace vesko {

/// Screen points, global coordinates.
struct MoveRequest {
  double x = 0;
  double y = 0;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("x", &MoveRequest::x), json::field("y", &MoveRequest::y)};
  }
};

/// Without a point the click happens where the pointer is.
struct ClickRequest {
  std::optional<double> x;
  std::optional<double> y;
  std::optional<std::string> button;
  std::optional<std::int64_t> count;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("x", &ClickRequest::x), json::field("y", &ClickRequest::y),
                      json::field("button", &ClickRequest::button),
                      json::field("count", &ClickRequest::count)};
  }
};

struct DragRequest {
  double fromX = 0;
  double fromY = 0;
  double toX = 0;
  double toY = 0;
  std::optional<std::string> button;
  static constexpr auto jsonFields() {
    return std::tuple{
        json::field("from_x", &DragRequest::fromX), json::field("from_y", &DragRequest::fromY),
        json::field("to_x", &DragRequest::toX), json::field("to_y", &DragRequest::toY),
        json::field("button", &DragRequest::button)};
  }
};

/// Pixels, as in ScrollEvent.
struct ScrollRequest {
  double dx = 0;
  double dy = 0;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("dx", &ScrollRequest::dx), json::field("dy", &ScrollRequest::dy)};
  }
};

struct TypeRequest {
  std::string text;
  std::optional<std::string> method;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("text", &TypeRequest::text),
                      json::field("method", &TypeRequest::method)};
  }
};

struct KeyRequest {
  std::string key;
  std::optional<std::vector<std::string>> modifiers;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("key", &KeyRequest::key),
                      json::field("modifiers", &KeyRequest::modifiers)};
  }
};

/// All entries but the last are modifiers.
struct HotkeyRequest {
  std::vector<std::string> combo;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("combo", &HotkeyRequest::combo)};
  }
};

struct ClipboardSetRequest {
  std::string text;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("text", &ClipboardSetRequest::text)};
  }
};

struct ClipboardGetResponse {
  std::string text;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("text", &ClipboardGetResponse::text)};
  }
};

class InputControl {
 public:
  struct ControlError {
    enum class Kind { invalid, eventCreationFailed, clipboardUnavailable };

    Kind kind = Kind::invalid;
    /// The text of `invalid`; empty for the others.
    std::string detail;

    static ControlError invalid(std::string message) { return {Kind::invalid, std::move(message)}; }
    std::string message() const;
    bool operator==(const ControlError&) const = default;
  };
  using Done = std::expected<OKResponse, ControlError>;

  /// Asked on workers before events are posted, in a long text again and again; the error is why
  /// not.
  using MayGoOn = std::function<std::expected<void, std::string>()>;

  InputControl(InputEvents& events, Pasteboard& pasteboard, MayGoOn mayGoOn = nullptr)
      : events_(events), pasteboard_(pasteboard), mayGoOn_(std::move(mayGoOn)) {}

  Done move(const MoveRequest& request);
  Done click(const ClickRequest& request);
  Done drag(const DragRequest& request);
  Done scroll(const ScrollRequest& request);
  Done type(const TypeRequest& request);
  Done key(const KeyRequest& request);
  Done hotkey(const HotkeyRequest& request);
  std::expected<ClipboardGetResponse, ControlError> clipboardGet();
  Done clipboardSet(const ClipboardSetRequest& request);

 private:
  Done post(std::span<const InputEvent> events) VESKO_REQUIRES(mutex_);
  Done setClipboard(std::string_view text) VESKO_REQUIRES(mutex_);
  Done press(std::string_view name, std::span<const std::string> modifiers);

  Mutex mutex_;
  InputEvents& events_ VESKO_GUARDED_BY(mutex_);
  Pasteboard& pasteboard_;
  const MayGoOn mayGoOn_;
};

}  // namespace vesko
