// A tree of accessibility elements as lines that are cheap to read: one element a line, indented by
// depth, unnamed wrappers left out, references instead of paths. Any thread.
//
//   window "Notes" focused 0,0 640x480 [e1]
//    button "Save" disabled 8,30 60x24 [e2]
//    textarea ="first line\nsecond" focused 0,60 640x420 [e3]
#pragma once

#include <string>

#include "base/json.h"
#include "helper/mcp/element_refs.h"

namespace vesko::mcp {

struct SnapshotTextOptions {
  std::size_t maxNodes = 0;  ///< that the snapshot was asked for
  bool paths = false;        ///< whole paths beside the references
};

/// `response` is that of /ax/snapshot.
std::string snapshotText(const json::Value& response, ElementRefs& refs,
                         const SnapshotTextOptions& options);

/// The same element on one line, without its children and the line end.
std::string elementLine(const json::Value& node, ElementRefs& refs, bool paths,
                        std::size_t valueLimit);

/// Something that only groups others, and that nobody would name.
bool isUnnamedWrapper(const json::Value& node);

/// "AXButton" as "button".
std::string shortRole(const json::Value& node);

/// The response as JSON text, cut to `limit` bytes: the deepest elements go first, and it says so.
std::string snapshotJson(json::Value response, std::size_t limit);

}  // namespace vesko::mcp
