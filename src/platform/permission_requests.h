// Asking the user for permissions, and showing where they are changed.
#pragma once

#include <expected>
#include <functional>
#include <string>
#include <string_view>

#include "platform/permissions.h"

namespace vesko {

/// Pages of the system's settings, as openSettings() takes them.
namespace settingsPages {
inline constexpr std::string_view accessibility =
    "x-apple.systempreferences:com.apple.preference.security?Privacy_Accessibility";
inline constexpr std::string_view screenCapture =
    "x-apple.systempreferences:com.apple.preference.security?Privacy_ScreenCapture";
inline constexpr std::string_view automation =
    "x-apple.systempreferences:com.apple.preference.security?Privacy_Automation";
inline constexpr std::string_view photos =
    "x-apple.systempreferences:com.apple.preference.security?Privacy_Photos";
}  // namespace settingsPages

template <class Status>
struct PermissionAnswer {
  Status status;
  /// The user was asked now. False when an earlier answer stands, as it does until the user changes
  /// it in the settings.
  bool asked = false;
};

/// The error is a text for the log: the user could not be asked.
template <class Status>
using PermissionOutcome = std::expected<PermissionAnswer<Status>, std::string>;

template <class Status>
using PermissionCallback = std::move_only_function<void(PermissionOutcome<Status>)>;

/// Main thread. Every callback is called exactly once, on the main thread and never before the
/// request returns, however long the user takes; only cancel() and destruction drop it. One
/// question at a time is the caller's concern.
class PermissionRequests {
 public:
  virtual ~PermissionRequests() = default;

  virtual void requestAccessibility(PermissionCallback<bool> done) = 0;
  virtual void requestScreenCapture(PermissionCallback<bool> done) = 0;
  virtual void requestPhotos(PermissionCallback<PhotosPermission> done) = 0;
  virtual void requestContacts(PermissionCallback<ContactsPermission> done) = 0;
  virtual void requestAutomation(AutomationTarget target,
                                 PermissionCallback<AutomationStatus> done) = 0;

  /// Shows one of the settingsPages. `failed` is called at most once, with a text for the log.
  virtual void openSettings(std::string_view page,
                            std::move_only_function<void(std::string)> failed) = 0;

  /// Takes back the questions that are open, as far as the desktop can. No callback follows.
  virtual void cancel() = 0;
};

}  // namespace vesko
