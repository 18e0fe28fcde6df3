#include "tools/accessibility_control.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <memory>
#include <string_view>
#include <vector>

#include "base/case_fold.h"
#include "tools/element_path.h"
#include "tools/element_tree.h"

namespace vesko {
namespace {

using ControlError = AccessibilityControl::ControlError;
using Kind = ControlError::Kind;

constexpr std::chrono::seconds timeForARequest{5};
constexpr std::int64_t defaultMaxNodes = 500;
constexpr std::int64_t defaultLimit = 20;

constexpr std::array actions{std::pair{std::string_view("press"), AXAction::press},
                             std::pair{std::string_view("confirm"), AXAction::confirm},
                             std::pair{std::string_view("cancel"), AXAction::cancel},
                             std::pair{std::string_view("show_menu"), AXAction::showMenu},
                             std::pair{std::string_view("raise"), AXAction::raise},
                             std::pair{std::string_view("increment"), AXAction::increment},
                             std::pair{std::string_view("decrement"), AXAction::decrement}};

std::unexpected<ControlError> fail(Kind kind) {
  return std::unexpected(ControlError{.kind = kind});
}

std::unexpected<ControlError> axFailure(std::string_view operation, AXError code) {
  return std::unexpected(ControlError{Kind::axFailure, std::string(operation), code});
}

AccessibilityControl::Result<OKResponse> outcome(std::string_view operation, AXError code) {
  if (code == AXError::success) return OKResponse{};
  if (code == AXError::invalidElement || code == AXError::cannotComplete)
    return fail(Kind::elementGone);
  return axFailure(operation, code);
}

bool intersects(const Rect& a, const Rect& screen) {
  const auto overlap = [](double start, double length, double other, double otherLength) {
    if (length <= 0) return start >= other && start < other + otherLength;
    return std::max(start, other) < std::min(start + length, other + otherLength);
  };
  return overlap(a.x, a.w, screen.x, screen.w) && overlap(a.y, a.h, screen.y, screen.h);
}

/// What lies on a screen; everything when none is attached, because nothing can be told then.
auto onScreen(WindowSystem& windows) {
  return [screens = windows.screens().value_or(std::vector<Rect>{})](const AXElementState& state) {
    return !state.frame || screens.empty() || std::ranges::any_of(screens, [&](const Rect& screen) {
      return intersects(*state.frame, screen);
    });
  };
}

Node nodeOf(const AXElementState& state, std::string path) {
  return {.role = state.role,
          .subrole = state.subrole,
          .title = state.title,
          .value = state.value,
          .enabled = state.enabled,
          .focused = state.focused,
          .frame = state.frame,
          .path = std::move(path),
          .children = {}};
}

// Every path repeats those above it: long titles one in the other make up more than all texts.
constexpr std::size_t maxPathBytes = 16 << 20;

struct NodeTree {
  Node root;
  bool cut = false;  ///< elements are missing whose paths had no room
};

/// The entries that were kept.
NodeTree nodeTree(ElementTree& tree, const std::string& rootPath) {
  const auto& entries = tree.entries();
  std::vector<Node> nodes(entries.size());
  std::size_t pathBytes = 0;
  bool cut = false;
  std::size_t end = entries.size();
  for (std::size_t i = 0; i < end; ++i) {
    if (!entries[i].kept) continue;
    nodes[i] = nodeOf(entries[i].state,
                      i == 0 ? rootPath : nodes[entries[i].parent].path + "/" + tree.segment(i));
    pathBytes += nodes[i].path.size();
    if (pathBytes > maxPathBytes && i > 0) {
      end = i;
      cut = true;
    }
  }
  // Children come behind their parents, so from the end every node is complete when it is moved.
  for (std::size_t i = end; i-- > 1;) {
    std::ranges::reverse(nodes[i].children);
    if (entries[i].kept) nodes[entries[i].parent].children.push_back(std::move(nodes[i]));
  }
  std::ranges::reverse(nodes.front().children);
  return {std::move(nodes.front()), cut};
}

std::optional<std::string> incompleteness(const AccessibilitySession& session,
                                          const ElementTree& tree) {
  if (session.incomplete()) return "deadline";
  if (tree.cut()) return "size";
  return std::nullopt;
}

class Criteria {
 public:
  explicit Criteria(const FindRequest& request) {
    const auto fold = [](const std::optional<std::string>& text) -> std::optional<std::string> {
      if (!text) return std::nullopt;
      return foldCase(*text);
    };
    role_ = fold(request.role);
    title_ = fold(request.title);
    valueContains_ = fold(request.valueContains);
  }

  bool match(const AXElementState& state) const {
    return (!role_ || foldCase(state.role) == *role_) &&
           (!title_ || (state.title && foldCase(*state.title).contains(*title_))) &&
           (!valueContains_ || (state.value && foldCase(*state.value).contains(*valueContains_)));
  }

 private:
  std::optional<std::string> role_, title_, valueContains_;
};

/// From a point to the nearest point of a frame; an element without a frame counts as near.
double distance(Point point, const std::optional<Rect>& frame) {
  if (!frame) return 0;
  const auto gap = [](double at, double start, double length) {
    return std::max({start - at, at - (start + length), 0.0});
  };
  return std::hypot(gap(point.x, frame->x, frame->w), gap(point.y, frame->y, frame->h));
}

}  // namespace

struct AccessibilityControl::Root {
  std::unique_ptr<AccessibilitySession> session;
  AXElement element = 0;
  std::string path;
  /// The application has no accessibility: it is all there is to tell.
  std::optional<Node> bare = {};
};

struct AccessibilityControl::Target {
  std::unique_ptr<AccessibilitySession> session;
  AXElement element = 0;
};

std::string AccessibilityControl::ControlError::message() const {
  switch (kind) {
    case Kind::invalid:
      return detail;
    case Kind::axFailure:
      return detail + " failed with AX error " + std::to_string(static_cast<std::int32_t>(code));
    case Kind::applicationNotFound:
      return "application not found";
    case Kind::elementGone:
      return "ax_element_gone";
  }
  std::unreachable();
}

std::unique_ptr<AccessibilitySession> AccessibilityControl::begin() {
  return accessibility_.begin(std::chrono::steady_clock::now() + timeForARequest);
}

AccessibilityControl::Result<SnapshotResponse> AccessibilityControl::snapshot(
    const SnapshotRequest& request) {
  const std::int64_t maxNodes = request.maxNodes.value_or(defaultMaxNodes);
  if (maxNodes < 1 || maxNodes > 2000)
    return std::unexpected(ControlError::invalid("max_nodes must be between 1 and 2000"));
  auto root = rootOf(request);
  if (!root) return std::unexpected(std::move(root.error()));
  if (root->bare) return SnapshotResponse{std::move(*root->bare), {}};

  ElementTree::Limits limits{.keep = static_cast<std::size_t>(maxNodes)};
  if (!request.includeOffscreen.value_or(false)) limits.accepts = onScreen(windows_);
  ElementTree tree(*root->session, root->element, limits);
  const AXElementState& top = tree.entries().front().state;
  if (top.error == AXError::invalidElement) return fail(Kind::elementGone);
  if (top.error != AXError::success)
    return std::unexpected(ControlError::invalid("the application does not answer"));
  NodeTree nodes = nodeTree(tree, root->path);
  SnapshotResponse response{std::move(nodes.root), incompleteness(*root->session, tree)};
  if (nodes.cut && !response.incomplete) response.incomplete = "size";
  return response;
}

AccessibilityControl::Result<FindResponse> AccessibilityControl::find(const FindRequest& request) {
  const std::int64_t wantedLimit = request.limit.value_or(defaultLimit);
  if (wantedLimit < 1 || wantedLimit > 100)
    return std::unexpected(ControlError::invalid("limit must be between 1 and 100"));
  const auto limit = static_cast<std::size_t>(wantedLimit);
  auto root = rootOfScope(request.bundleID ? "app" : "focused_app", request.bundleID);
  if (!root) return std::unexpected(std::move(root.error()));
  const Criteria criteria(request);
  FindResponse response;
  if (root->bare) {
    const AXElementState state{.role = root->bare->role, .title = root->bare->title};
    if (criteria.match(state)) response.elements.push_back(std::move(*root->bare));
    return response;
  }

  // The walk asks for what the criteria look at; the rest is read of the matches alone.
  std::vector<std::size_t> matches;
  std::size_t judged = 0;
  ElementTree::Limits limits{
      .wanted = request.valueContains ? axAttributes::value : AXAttributeSet{0},
      .enough = [&](const std::vector<ElementTree::Entry>& entries) {
        for (; judged < entries.size(); ++judged) {
          if (entries[judged].kept && criteria.match(entries[judged].state))
            matches.push_back(judged);
        }
        return !request.nearPoint && matches.size() >= limit;
      }};
  ElementTree tree(*root->session, root->element, limits);
  if (tree.entries().front().state.error != AXError::success)
    return std::unexpected(ControlError::invalid("the application does not answer"));

  const auto elementsOf = [&tree](const std::vector<std::size_t>& found) {
    std::vector<AXElement> elements;
    for (const std::size_t entry : found) elements.push_back(tree.entries()[entry].element);
    return elements;
  };
  if (request.nearPoint) {
    const auto frames = root->session->read(elementsOf(matches), axAttributes::frame, 0);
    std::vector<std::pair<double, std::size_t>> byDistance;
    for (std::size_t i = 0; i < matches.size(); ++i)
      byDistance.emplace_back(distance(*request.nearPoint, frames[i].frame), matches[i]);
    std::ranges::sort(byDistance);  // equally near ones stay in the order of the walk
    std::ranges::transform(byDistance, matches.begin(),
                           [](const auto& match) { return match.second; });
  }
  matches.resize(std::min(matches.size(), limit));

  auto states = root->session->read(
      elementsOf(matches), axAttributes::all & static_cast<AXAttributeSet>(~axAttributes::children),
      0);
  for (std::size_t i = 0; i < matches.size(); ++i) {
    AXElementState& state = states[i];
    // One that has gone since it was met is not there.
    if (state.error != AXError::success) continue;
    const AXElementState& met = tree.entries()[matches[i]].state;
    state.role = met.role;
    state.title = met.title;
    response.elements.push_back(nodeOf(state, tree.path(matches[i], root->path)));
  }
  response.incomplete = incompleteness(*root->session, tree);
  return response;
}

AccessibilityControl::Result<OKResponse> AccessibilityControl::performAction(
    const ActionRequest& request) {
  auto target = resolve(request.elementPath);
  if (!target) return std::unexpected(std::move(target.error()));
  const auto action =
      std::ranges::find(actions, request.action, [](const auto& a) { return a.first; });
  if (request.action != "focus" && action == actions.end())
    return std::unexpected(ControlError::invalid("unsupported AX action: " + request.action));
  return outcome("AX action", request.action == "focus"
                                  ? target->session->setFocused(target->element)
                                  : target->session->perform(target->element, action->second));
}

AccessibilityControl::Result<OKResponse> AccessibilityControl::setValue(
    const SetValueRequest& request) {
  auto target = resolve(request.elementPath);
  if (!target) return std::unexpected(std::move(target.error()));
  return outcome("set value", target->session->setValue(target->element, request.value));
}

AccessibilityControl::Result<AccessibilityControl::Root> AccessibilityControl::rootOf(
    const SnapshotRequest& request) {
  if (!request.elementPath)
    return rootOfScope(request.scope.value_or("focused_app"), request.bundleID);
  auto target = resolve(*request.elementPath);
  if (!target) return std::unexpected(std::move(target.error()));
  return Root{std::move(target->session), target->element, *request.elementPath};
}

AccessibilityControl::Result<AccessibilityControl::Root> AccessibilityControl::rootOfScope(
    std::string_view scope, const std::optional<std::string>& bundleID) {
  if (scope == "focused_app") {
    const auto application = applications_.frontmost();
    return application ? rootOfApplication(*application) : fail(Kind::applicationNotFound);
  }
  if (scope == "app") {
    if (!bundleID || bundleID->empty()) return fail(Kind::applicationNotFound);
    // An installed application may be known by more than one spelling of its identifier.
    const auto installed = applications_.installed(*bundleID);
    const std::string& identifier = installed ? installed->bundleIdentifier : *bundleID;
    const auto running = applications_.running();
    const auto application =
        std::ranges::find(running, identifier, &RunningApplication::bundleIdentifier);
    return application != running.end() ? rootOfApplication(*application)
                                        : fail(Kind::applicationNotFound);
  }
  if (scope == "frontmost_window") return frontmostWindow();
  if (scope == "system") {
    auto session = begin();
    const auto element = session->systemWide();
    if (!element) return axFailure("AX snapshot", element.error());
    return Root{std::move(session), *element, std::string(systemWideSegment)};
  }
  return std::unexpected(ControlError::invalid("invalid snapshot scope"));
}

AccessibilityControl::Result<AccessibilityControl::Root> AccessibilityControl::rootOfApplication(
    const RunningApplication& application) {
  auto session = begin();
  const auto element = session->application(application.pid);
  Root root{std::move(session), 0, applicationSegment(application)};
  if (element) {
    root.element = *element;
  } else if (element.error() == AXError::apiDisabled) {
    root.bare = Node{.role = "AXApplication",
                     .subrole = {},
                     .title = application.name,
                     .value = {},
                     .enabled = {},
                     .focused = {},
                     .frame = {},
                     .path = root.path,
                     .children = {}};
  } else if (element.error() == AXError::cannotComplete) {
    return std::unexpected(ControlError::invalid("the application does not answer"));
  } else {
    return axFailure("AX snapshot", element.error());
  }
  return root;
}

AccessibilityControl::Result<AccessibilityControl::Root> AccessibilityControl::frontmostWindow() {
  auto root = rootOfScope("focused_app", {});
  if (!root || root->bare) return root;
  const auto window = root->session->focusedWindow(root->element);
  if (!window) return axFailure("AX snapshot", window.error());
  // The window's name among the application's windows.
  ElementTree windows(
      *root->session, root->element,
      {.wanted = 0, .enough = [](const auto& entries) { return entries.back().depth > 0; }});
  const auto& entries = windows.entries();
  for (std::size_t i = 1; i < entries.size(); ++i) {
    if (entries[i].element != *window) continue;
    root->path = windows.path(i, root->path);
    root->element = *window;
    return root;
  }
  return axFailure("AX snapshot", AXError::noValue);
}

AccessibilityControl::Result<AccessibilityControl::Target> AccessibilityControl::resolve(
    std::string_view text) {
  const auto path = ElementPath::parse(text);
  if (!path) return fail(Kind::elementGone);
  if (path->application) {
    const auto process = applications_.process(path->application->pid);
    if (!process || process->bundleIdentifier != path->application->bundleIdentifier ||
        process->startToken != path->application->startToken)
      return fail(Kind::elementGone);
  }
  Target target{begin()};
  auto element = path->application ? target.session->application(path->application->pid)
                                   : target.session->systemWide();
  for (const auto& segment : path->segments) {
    if (!element) break;
    element = childNamed(*target.session, *element, segment);
  }
  if (!element) return fail(Kind::elementGone);
  target.element = *element;
  return target;
}

}  // namespace vesko
