// The desktop as assistive technology sees it (AT-SPI), for tests: finds elements by role and name
// and waits for what they become. Every wait is for an event and bounded by half a minute. One
// thread; the process needs a session bus.
#pragma once

#include <atspi/atspi.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace vesko::test {

using Element = std::shared_ptr<AtspiAccessible>;

class AccessibleDesktop {
 public:
  AccessibleDesktop();
  ~AccessibleDesktop();
  AccessibleDesktop(const AccessibleDesktop&) = delete;
  AccessibleDesktop& operator=(const AccessibleDesktop&) = delete;

  /// Looks again at each event; false when the bound passes first.
  bool waitUntil(const std::function<bool()>& holds);

  /// Null when there is none. An empty name stands for any.
  Element find(std::string_view application, AtspiRole role, std::string_view name = {});
  /// The same, once there is one.
  Element waitFor(std::string_view application, AtspiRole role, std::string_view name = {});
  std::vector<Element> applications(std::string_view name);

 private:
  AtspiEventListener* listener_;
};

std::string nameOf(const Element& element);
std::string descriptionOf(const Element& element);
bool is(const Element& element, AtspiStateType state);
/// Carries out its first action; false when it has none or refuses.
bool press(const Element& element);
unsigned processOf(const Element& element);

}  // namespace vesko::test
