// The accessibility of the desktop's applications over AT-SPI.
//
// Each session has a connection to the accessibility bus of its own, so that none waits for
// another's; begin() copes with a bus that is absent, starts later or was started anew. The first
// session turns on org.a11y.Status.IsEnabled, upon which applications tell of their elements; it
// stays on and is kept by the desktop's settings as any assistive program's doing.
#pragma once

#include <chrono>
#include <memory>

#include "platform/accessibility.h"
#include "platform/linux/atspi_bus.h"
#include "platform/linux/x11_session.h"

namespace vesko {

class AtspiAccessibility : public Accessibility {
 public:
  /// The X sessions outlive this. A connection to the accessibility bus is kept so long for the
  /// next session.
  explicit AtspiAccessibility(X11Sessions& sessions,
                              std::chrono::milliseconds keepFor = std::chrono::seconds(20));

  std::unique_ptr<AccessibilitySession> begin(
      std::chrono::steady_clock::time_point deadline) override;

 private:
  X11Sessions& sessions_;
  AtspiBus bus_;
};

}  // namespace vesko
