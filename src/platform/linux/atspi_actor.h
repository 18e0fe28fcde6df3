// Acts on one element: actions, values and the keyboard focus.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/accessibility.h"
#include "platform/linux/atspi_context.h"

namespace vesko {

/// One thread. What an application does with an action that it took is its own affair: success
/// means that it took it.
class AtspiActor {
 public:
  explicit AtspiActor(AtspiContext& context) : context_(context) {}

  AXError setFocused(AXElement element);
  AXError perform(AXElement element, AXAction action);
  AXError setValue(AXElement element, std::string_view value);

 private:
  /// An element as it is at this moment.
  struct Target {
    AXElement element = 0;
    AXError error = AXError::success;  ///< gone, or its application is
    std::uint32_t role = 0;
    AtspiStates states = {};
    std::vector<std::string> interfaces = {};
    std::vector<std::string> actions = {};  ///< lower case, by index

    bool has(std::string_view interface) const;
  };

  Target look(AXElement element);
  void askInterfaces(Target& target);
  void askActions(Target& target);
  AXError raise(const Target& target);
  /// Of what the toolkit calls that action.
  static std::optional<std::size_t> indexOf(AXAction action, const Target& target);
  AXError doAction(const Target& target, std::size_t index);
  AXError selectInParent(const Target& target);
  AXError step(const Target& target, double direction);
  AXError setText(const Target& target, std::string_view text);
  AXError setNumber(const Target& target, std::string_view text);
  AXError setNumber(const Target& target, double number);
  AXError setChecked(const Target& target, std::string_view text);
  AXError choose(const Target& target, std::string_view text);
  /// Of a call that answers whether it was done.
  AXError ask(AXElement element, std::string_view interface, std::string_view member,
              const DBusArguments& arguments);

  AtspiContext& context_;
};

}  // namespace vesko
