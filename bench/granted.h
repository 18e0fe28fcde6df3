// A user who allowed everything.
#pragma once

#include "platform/permissions.h"

namespace vesko::bench {

class Granted : public PermissionProbes {
 public:
  bool accessibilityTrusted() override { return true; }
  bool screenCaptureAllowed() override { return true; }
  PhotosPermission photos() override { return PhotosPermission::full; }
  AutomationStatus automation(AutomationTarget) override { return {}; }
};

}  // namespace vesko::bench
