#include "tools/element_tree.h"

#include <algorithm>
#include <map>
#include <string_view>

namespace vesko {
namespace {

using namespace axAttributes;

// Enough for a back end to keep its pipe full, few enough that a flood of long texts stays small.
constexpr std::size_t maxBatch = 512;
// Siblings that a walk had no room for are still looked at, up to so many, to tell whether a title
// is the only one of its kind.
constexpr std::size_t maxSiblingsRead = 256;

std::size_t textBytes(const AXElementState& state) {
  return (state.title ? state.title->size() : 0) + (state.value ? state.value->size() : 0);
}

const std::string unknownRole = "AXUnknown";

}  // namespace

ElementTree::ElementTree(AccessibilitySession& session, AXElement root, const Limits& limits)
    : session_(session) {
  walk(root, limits);
  // What the limit would not have let in is not missed.
  if (kept_ >= limits.keep) cut_ = false;
  segments_.resize(entries_.size());
}

void ElementTree::walk(AXElement root, const Limits& limits) {
  std::vector<Pending> level{{root, 0}};
  for (std::size_t depth = 0; !level.empty(); ++depth) {
    if (depth > maxElementDepth) {
      cut_ = true;
      return;
    }
    const std::size_t firstOfLevel = entries_.size();
    std::size_t at = 0;
    bool over = false;
    while (at < level.size() && !over) {
      const std::size_t room = std::min({limits.keep - kept_, maxRead - entries_.size(), maxBatch});
      if (room == 0) {
        cut_ = over = true;
        break;
      }
      const auto batch = std::span(level).subspan(at, std::min(room, level.size() - at));
      at += readBatch(batch, depth, limits);
      if (textBytes_ > maxTextBytes) cut_ = over = true;
      over = over || kept_ >= limits.keep || limits.enough(entries_);
    }
    for (; at < level.size(); ++at) children_[level[at].parent].unread.push_back(level[at].element);
    if (over) return;
    level = listChildren(firstOfLevel);
  }
}

std::size_t ElementTree::readBatch(std::span<const Pending> batch, std::size_t depth,
                                   const Limits& limits) {
  std::vector<AXElement> elements;
  elements.reserve(batch.size());
  for (const Pending& pending : batch) elements.push_back(pending.element);
  const std::size_t first = entries_.size();
  const std::size_t maxChildren = maxRead - first - batch.size();
  // When this batch can use up the room, its children are asked for only once that is known not to
  // be so.
  const bool childrenLater = kept_ + batch.size() >= limits.keep;
  auto states = session_.read(
      elements, limits.wanted | role | title | (childrenLater ? AXAttributeSet{0} : children),
      maxChildren);
  bool cutForOthers = false;
  bool roomForOthers = false;
  for (std::size_t i = 0; i < batch.size(); ++i) {
    const bool isRoot = first + i == 0;
    Entry entry{.element = batch[i].element,
                .parent = batch[i].parent,
                .depth = depth,
                .state = std::move(states[i])};
    if (entry.state.role.empty()) entry.state.role = unknownRole;
    // One that vanished since its parent listed it is not there.
    entry.kept = isRoot || (entry.state.error == AXError::success && limits.accepts(entry.state));
    if (entry.kept) ++kept_;
    cutForOthers = cutForOthers || (entry.kept && entry.state.moreChildren);
    roomForOthers = roomForOthers || (!entry.kept && !entry.state.children.empty());
    textBytes_ += textBytes(entry.state);
    if (!isRoot) {
      Siblings& siblings = children_[entry.parent];
      if (siblings.count++ == 0) siblings.first = first + i;
    }
    entries_.push_back(std::move(entry));
    children_.emplace_back();
  }
  // What is left out of the walk may have had the room of those whose children were cut.
  if (kept_ < limits.keep && (childrenLater || (cutForOthers && roomForOthers)))
    readChildren(first, maxChildren);
  return batch.size();
}

void ElementTree::readChildren(std::size_t firstEntry, std::size_t maxChildren) {
  std::vector<Entry*> kept;
  std::vector<AXElement> elements;
  for (Entry& entry : std::span(entries_).subspan(firstEntry)) {
    if (!entry.kept) continue;
    kept.push_back(&entry);
    elements.push_back(entry.element);
  }
  auto listed = session_.read(elements, children, maxChildren);
  for (std::size_t i = 0; i < kept.size(); ++i) {
    kept[i]->state.children = std::move(listed[i].children);
    kept[i]->state.moreChildren = listed[i].moreChildren;
  }
}

std::vector<ElementTree::Pending> ElementTree::listChildren(std::size_t firstEntry) {
  const auto seenBefore = [this](AXElement element) {
    if (element >= seen_.size()) seen_.resize(std::max<std::size_t>(element + 1, seen_.size() * 2));
    const bool before = seen_[element];
    seen_[element] = true;
    return before;
  };
  if (firstEntry == 0) seenBefore(entries_.front().element);
  std::vector<Pending> next;
  for (std::size_t i = firstEntry; i < entries_.size(); ++i) {
    if (!entries_[i].kept) continue;
    // A tree that a faulty application bends into a circle is still walked once.
    for (const AXElement child : entries_[i].state.children) {
      if (next.size() >= maxRead) {
        cut_ = true;
        return next;
      }
      if (!seenBefore(child)) next.push_back({child, i});
    }
    if (entries_[i].state.moreChildren) cut_ = true;
  }
  return next;
}

const std::string& ElementTree::segment(std::size_t entry) {
  if (segments_[entry].empty()) nameChildren(entries_[entry].parent);
  return segments_[entry];
}

std::string ElementTree::path(std::size_t entry, const std::string& rootPath) {
  if (entry == 0) return rootPath;
  return path(entries_[entry].parent, rootPath) + "/" + segment(entry);
}

void ElementTree::nameChildren(std::size_t parent) {
  const Siblings& siblings = children_[parent];
  const auto unread =
      std::span(siblings.unread).first(std::min(siblings.unread.size(), maxSiblingsRead));
  const auto others =
      unread.empty() ? std::vector<AXElementState>() : session_.read(unread, role | title, 0);

  using Name = std::pair<std::string_view, std::string_view>;
  std::map<Name, std::size_t> uses;
  const auto count = [&uses](const AXElementState& state) {
    if (state.title) ++uses[{state.role, *state.title}];
  };
  const auto read = std::span(entries_).subspan(siblings.first, siblings.count);
  for (const Entry& entry : read) count(entry.state);
  for (const AXElementState& state : others) count(state);

  std::map<std::string_view, std::size_t> ofRole;
  for (std::size_t i = 0; i < read.size(); ++i) {
    const AXElementState& state = read[i].state;
    const std::size_t index = ofRole[state.role]++;
    const bool unique = state.title && uses[{state.role, *state.title}] == 1;
    segments_[siblings.first + i] =
        elementSegment(state.role, unique ? state.title : std::nullopt, index);
  }
}

std::expected<AXElement, AXError> childNamed(AccessibilitySession& session, AXElement parent,
                                             const ElementPath::Segment& segment) {
  auto listed = session.read(std::span(&parent, 1), children, ElementTree::maxRead);
  if (listed[0].error != AXError::success) return std::unexpected(listed[0].error);
  const std::vector<AXElement>& siblings = listed[0].children;
  std::size_t index = 0;
  for (std::size_t at = 0; at < siblings.size(); at += maxBatch) {
    const auto batch = std::span(siblings).subspan(at, std::min(maxBatch, siblings.size() - at));
    const auto states = session.read(batch, segment.title ? role | title : role, 0);
    for (std::size_t i = 0; i < batch.size(); ++i) {
      const std::string& found = states[i].role.empty() ? unknownRole : states[i].role;
      if (found != segment.role) continue;
      if (segment.title ? states[i].title == segment.title : index++ == segment.index)
        return batch[i];
    }
    if (session.incomplete()) return std::unexpected(AXError::cannotComplete);
  }
  return std::unexpected(AXError::invalidElement);
}

}  // namespace vesko
