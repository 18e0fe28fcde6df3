// The textual address of an element: which process, then from its root one segment a level.
//
//   AXApplication[pid=7,bundle=org.example.editor,token=x]/AXWindow[title=Draft]/AXButton[0]
//
// Titles are percent-encoded, so neither "/" nor a bracket of theirs ends a segment. Any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/applications.h"

namespace vesko {

/// The first segment of paths that begin at the desktop instead of an application.
inline constexpr std::string_view systemWideSegment = "AXSystemWide";

/// Ends a path's and a tree's depth; deeper elements are neither shown nor found.
inline constexpr std::size_t maxElementDepth = 250;

/// Letters, digits and " -_.,:()" stay, every other byte becomes %XX.
std::string percentEncodeTitle(std::string_view title);
/// Nothing when an escape is broken or the result is not UTF-8.
std::optional<std::string> percentDecodeTitle(std::string_view encoded);

std::string applicationSegment(const RunningApplication& application);

/// Of an element among its siblings. An empty title, and one whose encoded form is unreasonably
/// long, does not name an element.
std::string elementSegment(std::string_view role, const std::optional<std::string>& uniqueTitle,
                           std::size_t indexInRole);

struct ElementPath {
  struct Segment {
    std::string role;
    std::optional<std::string> title;  ///< else the index counts
    std::size_t index = 0;             ///< among the siblings of that role
  };
  /// Nothing for a path that begins at the desktop.
  std::optional<RunningApplication> application;  ///< the name is empty
  std::vector<Segment> segments;                  ///< from the root's children on

  /// Nothing for a text that is no path, also for one deeper than maxElementDepth.
  static std::optional<ElementPath> parse(std::string_view text);
};

}  // namespace vesko
