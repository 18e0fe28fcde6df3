// A walk over the elements below a root, breadth first and a level at a time, so that a back end
// reads many elements at once; and the paths of what it met. One thread.
#pragma once

#include <cstddef>
#include <expected>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "platform/accessibility.h"
#include "tools/element_path.h"

namespace vesko {

class ElementTree {
 public:
  /// No walk reads more elements than this, whatever it keeps.
  static constexpr std::size_t maxRead = 20'000;
  /// Nor goes on once the texts of what it read are longer.
  static constexpr std::size_t maxTextBytes = 16 << 20;

  struct Entry {
    AXElement element = 0;
    std::size_t parent = 0;  ///< index of the parent's entry; the root is its own
    std::size_t depth = 0;
    AXElementState state = {};
    bool kept = true;  ///< false: left out, and its subtree not looked at
  };

  struct Limits {
    AXAttributeSet wanted = axAttributes::all;  ///< role and title are always read
    std::size_t keep = maxRead;                 ///< at most so many entries are kept
    /// Whether an entry counts; the root always does.
    std::function<bool(const AXElementState&)> accepts = [](const AXElementState&) { return true; };
    /// Asked after each batch with all entries so far: true ends the walk.
    std::function<bool(const std::vector<Entry>&)> enough = [](const auto&) { return false; };
  };

  ElementTree(AccessibilitySession& session, AXElement root, const Limits& limits);

  /// In the order of the walk; siblings stand side by side. The first is the root.
  const std::vector<Entry>& entries() const { return entries_; }

  /// Something was left out that is deeper than maxElementDepth, beyond maxRead or, with all that
  /// was read before, longer than maxTextBytes.
  bool cut() const { return cut_; }

  /// The entry's segment of a path: how it is told from its siblings. Not for the root.
  const std::string& segment(std::size_t entry);
  /// The path of an entry, given that of the root.
  std::string path(std::size_t entry, const std::string& rootPath);

 private:
  struct Pending {
    AXElement element;
    std::size_t parent;
  };
  /// The children of one entry: those read, then those that were listed and not read.
  struct Siblings {
    std::size_t first = 0;  ///< index of the first one's entry
    std::size_t count = 0;
    std::vector<AXElement> unread = {};
  };

  void walk(AXElement root, const Limits& limits);
  std::size_t readBatch(std::span<const Pending> batch, std::size_t depth, const Limits& limits);
  void readChildren(std::size_t firstEntry, std::size_t maxChildren);
  std::vector<Pending> listChildren(std::size_t firstEntry);
  void nameChildren(std::size_t parent);

  AccessibilitySession& session_;
  std::vector<Entry> entries_;
  std::vector<Siblings> children_;     // by entry
  std::vector<std::string> segments_;  // by entry, empty until named
  std::vector<bool> seen_;             // by element
  std::size_t kept_ = 0;
  std::size_t textBytes_ = 0;
  bool cut_ = false;
};

/// The element that a segment names among the children of `parent`; invalidElement when none is so
/// named.
std::expected<AXElement, AXError> childNamed(AccessibilitySession& session, AXElement parent,
                                             const ElementPath::Segment& segment);

}  // namespace vesko
