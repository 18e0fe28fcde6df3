// Reads many elements at once: everything that is asked of them is under way together.
#pragma once

#include <span>
#include <vector>

#include "platform/accessibility.h"
#include "platform/linux/atspi_context.h"
#include "platform/linux/atspi_places.h"

namespace vesko {

/// For one call of AccessibilitySession::read().
class AtspiReader {
 public:
  AtspiReader(AtspiContext& context, AXAttributeSet wanted, std::size_t maxChildren)
      : context_(context), places_(context), wanted_(wanted), room_(maxChildren) {}

  std::vector<AXElementState> read(std::span<const AXElement> elements);

 private:
  struct Item {
    AXElement element = 0;
    AXElementState state = {};
    AtspiFacts facts = {};
    AtspiKind kind = {};
    unsigned factsAwaited = 0;
    bool showsPage = false;
    std::vector<std::optional<AXElement>> byIndex = {};  ///< children that are asked for one by one
    int lookedInside = 0;                                ///< elements, for a label
  };

  bool wants(AXAttributeSet attribute) const { return (wanted_ & attribute) != 0; }
  void nameByTitleBar(Item& item);
  void listElements(std::span<const AXElement> elements);
  /// False when there was nothing to visit.
  bool visitUnlisted(std::uint32_t application, std::span<const AXElement> from);
  void start(Item& item);
  void askFacts(Item& item);
  void factArrived(Item& item);
  void askRest(Item& item);
  void tellFacts(Item& item);
  void askValue(Item& item);
  void askText(Item& item);
  void askChoice(Item& item);
  void askLabelInside(Item& item, AXElement within, int depth);
  void askWhetherLabel(Item& item, AXElement element);
  void askChildren(Item& item);
  void askChildrenByIndex(Item& item, std::size_t count);
  void takeChildren(Item& item, const DBusReply& reply);
  /// The element that an answer refers to; nothing for none, or when it would be one too many.
  std::optional<AXElement> known(DBusReader& reader, AXElement parent);

  AtspiContext& context_;
  AtspiPlaces places_;
  const AXAttributeSet wanted_;
  std::size_t room_;  ///< children that may still be named
};

}  // namespace vesko
