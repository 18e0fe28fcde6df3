// What the user allows this application to do, as the desktop reports it now.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "base/json_record.h"

namespace vesko {

/// Applications that this one may be allowed to automate.
enum class AutomationTarget { messages, notes };

/// What a probe said about automating another application.
struct AutomationStatus {
  enum class Kind { unknown, notDetermined, granted, denied, notRunning, unavailable };
  Kind kind = Kind::unknown;
  std::int32_t code = 0;  ///< the system's status code; unavailable only
  bool operator==(const AutomationStatus&) const = default;

  /// As "not_determined" and "unavailable(-1712)".
  std::string text() const;
};

/// The same on the wire.
enum class AutomationState { granted, notDetermined, denied, notRunning, unavailable };

template <>
struct json::EnumNames<AutomationState> {
  static constexpr std::array values{
      std::pair{AutomationState::granted, std::string_view("granted")},
      std::pair{AutomationState::notDetermined, std::string_view("not_determined")},
      std::pair{AutomationState::denied, std::string_view("denied")},
      std::pair{AutomationState::notRunning, std::string_view("not_running")},
      std::pair{AutomationState::unavailable, std::string_view("unavailable")}};
};

/// A status that was never probed counts as unavailable.
constexpr AutomationState automationState(const AutomationStatus& status) {
  using Kind = AutomationStatus::Kind;
  switch (status.kind) {
    case Kind::granted:
      return AutomationState::granted;
    case Kind::notDetermined:
      return AutomationState::notDetermined;
    case Kind::denied:
      return AutomationState::denied;
    case Kind::notRunning:
      return AutomationState::notRunning;
    case Kind::unknown:
    case Kind::unavailable:
      break;
  }
  return AutomationState::unavailable;
}

inline std::string AutomationStatus::text() const {
  if (kind == Kind::unknown) return "unknown";
  const std::string word(json::wordOf(automationState(*this)));
  return kind == Kind::unavailable ? word + "(" + std::to_string(code) + ")" : word;
}

/// Access to the user's photos, read and write.
enum class PhotosPermission { full, limited, denied, notDetermined };

template <>
struct json::EnumNames<PhotosPermission> {
  static constexpr std::array values{
      std::pair{PhotosPermission::full, std::string_view("full")},
      std::pair{PhotosPermission::limited, std::string_view("limited")},
      std::pair{PhotosPermission::denied, std::string_view("denied")},
      std::pair{PhotosPermission::notDetermined, std::string_view("not_determined")}};
};

/// Access to the user's address book.
enum class ContactsPermission { notDetermined, denied, granted };

/// Probes only: none of them asks the user. Any thread; cheap enough for every request.
class PermissionProbes {
 public:
  virtual ~PermissionProbes() = default;
  virtual bool accessibilityTrusted() = 0;
  virtual bool screenCaptureAllowed() = 0;
  virtual PhotosPermission photos() = 0;
  virtual AutomationStatus automation(AutomationTarget target) = 0;
  virtual ContactsPermission contacts() { return ContactsPermission::notDetermined; }

  /// Moves whenever an answer above may have changed; nothing where the desktop does not tell.
  /// Cheaper than the probes, and never waits for another process.
  virtual std::optional<std::uint64_t> changeCount() { return std::nullopt; }

  /// A window that only the user may answer is on the screen: a question about a permission, or
  /// the place where permissions are changed.
  virtual bool privacyWindowShown() { return false; }
};

}  // namespace vesko
