#include "tools/app_window_control.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "base/case_fold.h"

namespace vesko {
namespace {

using ControlError = AppWindowControl::ControlError;
using Kind = ControlError::Kind;

// Windows that were closed are forgotten once this many are remembered.
constexpr std::size_t maxRemembered = 4096;

std::unexpected<ControlError> fail(Kind kind) {
  return std::unexpected(ControlError::of(kind));
}
std::unexpected<ControlError> invalid(std::string_view message) {
  return std::unexpected(ControlError::invalid(std::string(message)));
}

/// Those with the name exactly, or when there is none, those whose name differs in case only. No
/// name names nothing, not even what has none.
template <class T, class NamesOf>
std::vector<T> named(const std::vector<T>& candidates, const std::string& name,
                     const NamesOf& namesOf) {
  std::vector<T> exact;
  std::vector<T> similar;
  if (name.empty()) return exact;
  const std::string folded = foldCase(name);
  for (const T& candidate : candidates) {
    bool same = false;
    bool like = false;
    for (const std::string_view given : namesOf(candidate)) {
      same = same || given == name;
      like = like || foldCase(given) == folded;
    }
    if (same)
      exact.push_back(candidate);
    else if (like)
      similar.push_back(candidate);
  }
  return exact.empty() ? similar : exact;
}

bool exactlyOne(const AppRequest& request) {
  return request.bundleID.has_value() != request.name.has_value();
}

constexpr std::string_view exactlyOneNeeded = "supply exactly one of bundle_id or name";

}  // namespace

std::string ControlError::message() const {
  switch (kind) {
    case Kind::invalid:
      break;
    case Kind::launchFailed:
      return "application launch failed: " + detail;
    case Kind::axFailure:
      return fmt::format("{} failed with AX error {}", detail, code);
    case Kind::applicationNotFound:
      return "application not found";
    case Kind::windowNotFound:
      return "window not found";
  }
  return detail;
}

// --- Applications ---------------------------------------------------------------------------

std::vector<RunningApplication> AppWindowControl::runningNamed(const std::string& name) {
  const auto installed = applications_.installed();
  return named(applications_.running(), name, [&installed](const RunningApplication& running) {
    std::vector<std::string_view> names{running.name};
    if (running.bundleIdentifier.empty()) return names;
    const auto entry = std::ranges::find(installed, running.bundleIdentifier,
                                         &InstalledApplication::bundleIdentifier);
    if (entry != installed.end()) names.insert(names.end(), {entry->displayName, entry->name});
    return names;
  });
}

std::optional<InstalledApplication> AppWindowControl::installedNamed(const std::string& name) {
  const auto found =
      named(applications_.installed(), name, [](const InstalledApplication& application) {
        return std::array<std::string_view, 2>{application.displayName, application.name};
      });
  return found.empty() ? std::nullopt : std::optional(found.front());
}

AppWindowControl::Result<std::vector<RunningApplication>> AppWindowControl::resolveRunning(
    const AppRequest& request) {
  if (!exactlyOne(request)) return invalid(exactlyOneNeeded);
  std::vector<RunningApplication> found;
  if (request.name) {
    found = runningNamed(*request.name);
  } else if (!request.bundleID->empty()) {
    // An installed application may be known by more than one spelling of its identifier.
    const auto installed = applications_.installed(*request.bundleID);
    const std::string& identifier = installed ? installed->bundleIdentifier : *request.bundleID;
    found = applications_.running();
    std::erase_if(found, [&identifier](const RunningApplication& each) {
      return each.bundleIdentifier != identifier;
    });
  }
  if (found.empty()) return fail(Kind::applicationNotFound);
  return found;
}

RunningApplication AppWindowControl::frontmostOf(const std::vector<RunningApplication>& instances) {
  if (instances.size() > 1) {
    const auto frontToBack = windows_.windows(std::nullopt);
    for (const DesktopWindow& window : frontToBack.value_or(std::vector<DesktopWindow>{})) {
      const auto owner = std::ranges::find(instances, window.pid, &RunningApplication::pid);
      if (owner != instances.end()) return *owner;
    }
  }
  return instances.front();
}

AppWindowControl::Result<AppLaunchResponse> AppWindowControl::launch(const AppRequest& request) {
  if (!exactlyOne(request)) return invalid(exactlyOneNeeded);
  std::optional<InstalledApplication> application;
  if (request.bundleID) {
    application = applications_.installed(*request.bundleID);
  } else {
    const auto running = runningNamed(*request.name);
    for (const RunningApplication& each : running) {
      if (!application && !each.bundleIdentifier.empty())
        application = applications_.installed(each.bundleIdentifier);
    }
    if (!application) application = installedNamed(*request.name);
    // What runs without being installed cannot be started, but it can be had.
    if (!application && !running.empty()) {
      const RunningApplication front = frontmostOf(running);
      if (!applications_.activate(front))
        return std::unexpected(ControlError::launchFailed("could not activate application"));
      return AppLaunchResponse{.pid = front.pid};
    }
  }
  if (!application) return fail(Kind::applicationNotFound);
  const auto pid = applications_.launch(*application);
  if (!pid) return std::unexpected(ControlError::launchFailed(pid.error()));
  return AppLaunchResponse{.pid = *pid};
}

AppWindowControl::Result<bool> AppWindowControl::activate(const AppRequest& request) {
  const auto running = resolveRunning(request);
  if (!running) return std::unexpected(running.error());
  return applications_.activate(frontmostOf(*running));
}

AppWindowControl::Result<bool> AppWindowControl::quit(const AppRequest& request) {
  const auto running = resolveRunning(request);
  if (!running) return std::unexpected(running.error());
  bool all = true;
  for (const RunningApplication& each : *running) all = applications_.quit(each) && all;
  return all;
}

// --- Windows --------------------------------------------------------------------------------

AppWindowControl::Result<WindowListResponse> AppWindowControl::list(const AppRequest& request) {
  const bool ofAll = !request.bundleID && !request.name;
  const auto applications = ofAll ? Result<std::vector<RunningApplication>>(applications_.running())
                                  : resolveRunning(request);
  if (!applications) return std::unexpected(applications.error());
  const auto onlyOne =
      !ofAll && applications->size() == 1 ? std::optional(applications->front().pid) : std::nullopt;
  auto windows = windows_.windows(onlyOne);
  if (!windows) return std::unexpected(ControlError::axFailure("list windows", windows.error()));

  std::unordered_map<pid_t, const RunningApplication*> owners;
  for (const RunningApplication& each : *applications) owners.emplace(each.pid, &each);
  // Whose process is unknown belongs to no application; one whose process is known, but does not
  // run any more or not yet, cannot be acted on.
  std::erase_if(*windows, [&owners, ofAll](const DesktopWindow& each) {
    return !owners.contains(each.pid) && !(ofAll && each.pid == 0);
  });
  remember(*windows, owners);

  WindowListResponse response;
  for (DesktopWindow& each : *windows) {
    const auto owner = owners.find(each.pid);
    response.windows.push_back(
        {.bundleID = owner == owners.end() ? std::string() : owner->second->bundleIdentifier,
         .title = each.title ? std::move(*each.title) : "Unknown",
         .windowID = each.number,
         .frame = each.frame,
         .focused = each.focused,
         .minimized = each.minimized});
  }
  return response;
}

void AppWindowControl::remember(
    const std::vector<DesktopWindow>& windows,
    const std::unordered_map<pid_t, const RunningApplication*>& owners) {
  const MutexLock lock(mutex_);
  const std::uint64_t listing = ++listings_;
  for (const DesktopWindow& window : windows) {
    WindowHandle handle{.pid = window.pid, .number = window.number};
    if (const auto owner = owners.find(window.pid); owner != owners.end()) {
      handle.bundleIdentifier = owner->second->bundleIdentifier;
      handle.processStartToken = owner->second->startToken;
    }
    listed_.insert_or_assign(window.number, Listed{std::move(handle), listing});
  }
  if (listed_.size() > maxRemembered)
    std::erase_if(listed_, [listing](const auto& each) { return each.second.listing != listing; });
}

AppWindowControl::Result<std::uint32_t> AppWindowControl::resolve(std::int64_t windowID,
                                                                  std::string_view operation) {
  if (!std::in_range<std::uint32_t>(windowID)) return fail(Kind::windowNotFound);
  const auto number = static_cast<std::uint32_t>(windowID);
  WindowHandle handle;
  {
    const MutexLock lock(mutex_);
    const auto found = listed_.find(number);
    if (found == listed_.end()) return fail(Kind::windowNotFound);
    handle = found->second.handle;
  }
  std::optional<pid_t> owner;
  if (handle.pid != 0) {
    const auto process = applications_.process(handle.pid);
    if (!process || process->startToken != handle.processStartToken)
      return fail(Kind::windowNotFound);
    owner = handle.pid;
  }
  const auto windows = windows_.windows(owner);
  if (!windows)
    return std::unexpected(ControlError::axFailure(std::string(operation), windows.error()));
  if (std::ranges::find(*windows, number, &DesktopWindow::number) == windows->end())
    return fail(Kind::windowNotFound);
  return number;
}

AppWindowControl::Result<OKResponse> AppWindowControl::operate(
    std::int64_t windowID, const Operation& operation,
    const std::function<AXError(std::uint32_t)>& act) {
  const auto number = resolve(windowID, operation.name);
  if (!number) return std::unexpected(number.error());
  const AXError error = act(*number);
  switch (error) {
    case AXError::success:
      return OKResponse{};
    case AXError::invalidElement:
    case AXError::cannotComplete:
      return fail(Kind::windowNotFound);
    case AXError::illegalArgument:
      if (!operation.invalidArgument.empty()) return invalid(operation.invalidArgument);
      break;
    default:
      break;
  }
  return std::unexpected(ControlError::axFailure(std::string(operation.name), error));
}

AppWindowControl::Result<OKResponse> AppWindowControl::focus(const WindowRequest& request) {
  return operate(request.windowID, {"focus window"},
                 [this](std::uint32_t window) { return windows_.focus(window); });
}

AppWindowControl::Result<OKResponse> AppWindowControl::move(const WindowMoveRequest& request) {
  if (!std::isfinite(request.x) || !std::isfinite(request.y))
    return invalid("window coordinates must be finite");
  return operate(request.windowID, {"move window", "invalid window position"},
                 [this, &request](std::uint32_t window) {
                   return windows_.move(window, {request.x, request.y});
                 });
}

AppWindowControl::Result<OKResponse> AppWindowControl::resize(const WindowResizeRequest& request) {
  const auto usable = [](double side) { return std::isfinite(side) && side > 0; };
  if (!usable(request.w) || !usable(request.h))
    return invalid("window size must be positive and finite");
  return operate(request.windowID, {"resize window", "invalid window size"},
                 [this, &request](std::uint32_t window) {
                   return windows_.resize(window, request.w, request.h);
                 });
}

AppWindowControl::Result<OKResponse> AppWindowControl::minimize(const WindowRequest& request) {
  return operate(request.windowID, {"minimize window"},
                 [this](std::uint32_t window) { return windows_.minimize(window); });
}

AppWindowControl::Result<OKResponse> AppWindowControl::toggleFullScreen(
    const WindowRequest& request) {
  return operate(request.windowID, {"toggle window fullscreen"},
                 [this](std::uint32_t window) { return windows_.toggleFullScreen(window); });
}

}  // namespace vesko
