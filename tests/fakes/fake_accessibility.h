// Element trees in memory, with applications that hang, vanish or refuse. Set up first, then any
// thread, but a session's sequence of calls.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/accessibility.h"

namespace vesko::fakes {

struct FakeElement {
  AXElementState state = {};  ///< the children here are ignored, those below count
  std::vector<std::shared_ptr<FakeElement>> children = {};
  bool gone = false;
  /// What acting on it answers.
  AXError answer = AXError::success;
  std::vector<AXAction> performed = {};

  /// Adds a child and returns it.
  FakeElement& add(std::string role, std::optional<std::string> title = {});
};

class FakeAccessibility : public Accessibility {
 public:
  std::unique_ptr<AccessibilitySession> begin(
      std::chrono::steady_clock::time_point deadline) override;

  FakeElement& application(pid_t pid);

  std::map<pid_t, std::shared_ptr<FakeElement>> applications;
  std::map<pid_t, FakeElement*> focusedWindows;
  /// So many elements are still read; then the applications hang.
  std::size_t answersBeforeHanging = SIZE_MAX;
  /// Called before each read with how many were asked for.
  std::function<void(std::size_t)> onRead = [](std::size_t) {};
};

}  // namespace vesko::fakes
