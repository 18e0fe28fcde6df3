// Requests and responses of the accessibility tool.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "base/geometry.h"
#include "base/json_record.h"

namespace vesko {

struct SnapshotRequest {
  std::optional<std::string> scope = {};  ///< "focused_app" when absent
  std::optional<std::string> bundleID = {};
  std::optional<std::int64_t> maxNodes = {};  ///< 500 when absent
  std::optional<bool> includeOffscreen = {};  ///< false when absent
  /// Roots the snapshot at this element instead of a scope.
  std::optional<std::string> elementPath = {};

  static constexpr auto jsonFields() {
    using R = SnapshotRequest;
    return std::tuple{json::field("scope", &R::scope), json::field("bundle_id", &R::bundleID),
                      json::field("max_nodes", &R::maxNodes),
                      json::field("include_offscreen", &R::includeOffscreen),
                      json::field("element_path", &R::elementPath)};
  }
};

struct Node {
  std::string role;
  std::optional<std::string> subrole;
  std::optional<std::string> title;
  std::optional<std::string> value;
  std::optional<bool> enabled;
  std::optional<bool> focused;
  std::optional<Rect> frame;
  std::string path;
  std::vector<Node> children;

  static constexpr auto jsonFields() {
    return std::tuple{
        json::field("role", &Node::role),        json::field("subrole", &Node::subrole),
        json::field("title", &Node::title),      json::field("value", &Node::value),
        json::field("enabled", &Node::enabled),  json::field("focused", &Node::focused),
        json::field("frame", &Node::frame),      json::field("path", &Node::path),
        json::field("children", &Node::children)};
  }
};

struct SnapshotResponse {
  Node tree;
  /// Why parts of the tree that "max_nodes" had room for are missing: "deadline" when an
  /// application did not answer in time, "size" when its texts or its depth are beyond all bounds.
  std::optional<std::string> incomplete;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("tree", &SnapshotResponse::tree),
                      json::field("incomplete", &SnapshotResponse::incomplete)};
  }
};

struct FindRequest {
  std::optional<std::string> bundleID = {};
  std::optional<std::string> role = {};
  std::optional<std::string> title = {};
  std::optional<std::string> valueContains = {};
  std::optional<Point> nearPoint = {};
  std::optional<std::int64_t> limit = {};  ///< 20 when absent

  static constexpr auto jsonFields() {
    using R = FindRequest;
    return std::tuple{
        json::field("bundle_id", &R::bundleID),   json::field("role", &R::role),
        json::field("title", &R::title),          json::field("value_contains", &R::valueContains),
        json::field("near_point", &R::nearPoint), json::field("limit", &R::limit)};
  }
};

struct FindResponse {
  std::vector<Node> elements;  ///< without children
  /// As in SnapshotResponse: the search did not reach everything.
  std::optional<std::string> incomplete;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("elements", &FindResponse::elements),
                      json::field("incomplete", &FindResponse::incomplete)};
  }
};

struct ActionRequest {
  std::string elementPath;
  std::string action;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("element_path", &ActionRequest::elementPath),
                      json::field("action", &ActionRequest::action)};
  }
};

struct SetValueRequest {
  std::string elementPath;
  std::string value;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("element_path", &SetValueRequest::elementPath),
                      json::field("value", &SetValueRequest::value)};
  }
};

}  // namespace vesko
