// What the user allows this application to do, as the desktop reports it now.
#pragma once

#include <array>
#include <string_view>
#include <utility>

#include "base/json_record.h"

namespace vesko {

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

/// Probes only: none of them asks the user. Any thread; cheap enough for every request.
class PermissionProbes {
 public:
  virtual ~PermissionProbes() = default;
  virtual bool accessibilityTrusted() = 0;
  virtual bool screenCaptureAllowed() = 0;
  virtual AutomationState messagesAutomation() = 0;
};

}  // namespace vesko
