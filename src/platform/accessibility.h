// The user interfaces of running applications as trees of elements, and acting on them.
//
// Names of roles, subroles and actions and the numbers of the errors are those of the Mac's
// accessibility interface (AXRoleConstants.h, AXActionConstants.h, AXError.h); a back end on
// another desktop maps its own to them.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/geometry.h"

namespace vesko {

enum class AXError : std::int32_t {
  success = 0,
  failure = -25200,
  illegalArgument = -25201,
  invalidElement = -25202,  ///< the element is gone
  cannotComplete = -25204,  ///< the application is gone, hangs or does not answer in time
  attributeUnsupported = -25205,
  actionUnsupported = -25206,
  notImplemented = -25208,
  apiDisabled = -25211,  ///< the application offers no accessibility
  noValue = -25212,
};

/// What read() is to ask for; combined with |.
using AXAttributeSet = std::uint16_t;
namespace axAttributes {
inline constexpr AXAttributeSet role = 1 << 0;
inline constexpr AXAttributeSet subrole = 1 << 1;
inline constexpr AXAttributeSet title = 1 << 2;
inline constexpr AXAttributeSet value = 1 << 3;
inline constexpr AXAttributeSet enabled = 1 << 4;
inline constexpr AXAttributeSet focused = 1 << 5;
inline constexpr AXAttributeSet frame = 1 << 6;
inline constexpr AXAttributeSet children = 1 << 7;
inline constexpr AXAttributeSet all = 0xFF;
}  // namespace axAttributes

enum class AXAction { press, confirm, cancel, showMenu, raise, increment, decrement };

/// An element within the session that named it; the same element always has the same number there.
using AXElement = std::uint32_t;

/// What an element said of itself. What was not asked for, does not exist or could not be read is
/// empty. Texts are valid UTF-8.
struct AXElementState {
  std::string role = {};  ///< as "AXButton"
  std::optional<std::string> subrole = {};
  std::optional<std::string> title = {};
  std::optional<std::string> value = {};  ///< numbers as text; cut at maxAXValueBytes
  std::optional<bool> enabled = {};
  std::optional<bool> focused = {};
  std::optional<Rect> frame = {};  ///< screen points
  std::vector<AXElement> children = {};
  bool moreChildren = false;  ///< the list of children was cut
  /// Of the element as a whole: invalidElement and cannotComplete leave everything else empty.
  AXError error = AXError::success;
};

inline constexpr std::size_t maxAXValueBytes = 64 << 10;

/// One request's dealings with the desktop, up to its deadline. One thread.
class AccessibilitySession {
 public:
  virtual ~AccessibilitySession() = default;

  /// The root of a process's tree, "AXApplication". Processes without accessibility: apiDisabled.
  virtual std::expected<AXElement, AXError> application(pid_t process) = 0;
  /// "AXSystemWide"; its children are the applications.
  virtual std::expected<AXElement, AXError> systemWide() = 0;
  /// The window of that application that has the keyboard; noValue when none has it.
  virtual std::expected<AXElement, AXError> focusedWindow(AXElement application) = 0;

  /// Reads many elements at once, so that a back end can keep many questions under way: one state
  /// for each element, in order. At most `maxChildren` children are named by all of them together,
  /// of each its first ones; which elements come short is the back end's choice.
  virtual std::vector<AXElementState> read(std::span<const AXElement> elements,
                                           AXAttributeSet wanted, std::size_t maxChildren) = 0;

  /// Something that was asked for could not be read, because the deadline passed or an application
  /// stopped answering.
  virtual bool incomplete() const = 0;

  virtual AXError setFocused(AXElement element) = 0;
  virtual AXError perform(AXElement element, AXAction action) = 0;
  virtual AXError setValue(AXElement element, std::string_view value) = 0;
};

/// Any thread.
class Accessibility {
 public:
  virtual ~Accessibility() = default;
  /// Every call of the session returns by `deadline`, soon after at the latest.
  virtual std::unique_ptr<AccessibilitySession> begin(
      std::chrono::steady_clock::time_point deadline) = 0;
};

}  // namespace vesko
