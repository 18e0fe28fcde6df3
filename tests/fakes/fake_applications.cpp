#include "fakes/fake_applications.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace vesko::fakes {
namespace {

constexpr double largest = 32767;  ///< coordinate or side of a window

}  // namespace

std::string FakeApplications::newToken() {
  return "start" + std::to_string(++tokens_);
}

std::vector<RunningApplication>::iterator FakeApplications::find(pid_t pid) {
  return std::ranges::find(running_, pid, &RunningApplication::pid);
}

void FakeApplications::remove(pid_t pid) {
  if (const auto found = find(pid); found != running_.end()) running_.erase(found);
  if (frontmost_ == pid) frontmost_ = 0;
}

pid_t FakeApplications::add(RunningApplication application) {
  const MutexLock lock(mutex_);
  if (application.startToken.empty()) application.startToken = newToken();
  const pid_t pid = application.pid;
  if (frontmost_ == 0) frontmost_ = pid;
  running_.push_back(std::move(application));
  return pid;
}

void FakeApplications::install(InstalledApplication application,
                               std::optional<std::string> launchError) {
  const MutexLock lock(mutex_);
  installed_.push_back({std::move(application), std::move(launchError)});
}

void FakeApplications::end(pid_t pid) {
  const MutexLock lock(mutex_);
  remove(pid);
}

void FakeApplications::replace(pid_t pid) {
  const MutexLock lock(mutex_);
  if (const auto found = find(pid); found != running_.end()) found->startToken = newToken();
}

void FakeApplications::refuseActivation(pid_t pid) {
  const MutexLock lock(mutex_);
  notActivating_.insert(pid);
}

void FakeApplications::refuseQuit(pid_t pid) {
  const MutexLock lock(mutex_);
  notQuitting_.insert(pid);
}

void FakeApplications::setFrontmost(pid_t pid) {
  const MutexLock lock(mutex_);
  frontmost_ = pid;
}

std::vector<RunningApplication> FakeApplications::running() {
  const MutexLock lock(mutex_);
  return running_;
}

std::optional<RunningApplication> FakeApplications::process(pid_t pid) {
  const MutexLock lock(mutex_);
  const auto found = find(pid);
  return found == running_.end() ? std::nullopt : std::optional(*found);
}

std::optional<RunningApplication> FakeApplications::frontmost() {
  const MutexLock lock(mutex_);
  const auto found = find(frontmost_);
  return found == running_.end() ? std::nullopt : std::optional(*found);
}

std::vector<InstalledApplication> FakeApplications::installed() {
  const MutexLock lock(mutex_);
  std::vector<InstalledApplication> all;
  for (const Installed& each : installed_) all.push_back(each.application);
  return all;
}

std::optional<InstalledApplication> FakeApplications::installed(
    const std::string& bundleIdentifier) {
  const MutexLock lock(mutex_);
  for (const Installed& each : installed_) {
    if (each.application.bundleIdentifier == bundleIdentifier) return each.application;
  }
  return std::nullopt;
}

std::expected<pid_t, std::string> FakeApplications::launch(
    const InstalledApplication& application) {
  const MutexLock lock(mutex_);
  const auto entry =
      std::ranges::find(installed_, application.bundleIdentifier,
                        [](const Installed& each) { return each.application.bundleIdentifier; });
  if (entry == installed_.end()) return std::unexpected("no such application");
  if (entry->launchError) return std::unexpected(*entry->launchError);
  auto instance = std::ranges::find(running_, application.bundleIdentifier,
                                    &RunningApplication::bundleIdentifier);
  if (instance == running_.end())
    instance = running_.insert(running_.end(), {.pid = nextPid_++,
                                                .bundleIdentifier = application.bundleIdentifier,
                                                .name = application.displayName,
                                                .startToken = newToken()});
  frontmost_ = instance->pid;
  return instance->pid;
}

bool FakeApplications::activate(const RunningApplication& application) {
  const MutexLock lock(mutex_);
  const auto found = find(application.pid);
  if (found == running_.end() || found->startToken != application.startToken ||
      notActivating_.contains(application.pid))
    return false;
  frontmost_ = application.pid;
  return true;
}

bool FakeApplications::quit(const RunningApplication& application) {
  const MutexLock lock(mutex_);
  const auto found = find(application.pid);
  if (found == running_.end() || found->startToken != application.startToken ||
      notQuitting_.contains(application.pid))
    return false;
  remove(application.pid);
  return true;
}

void FakeWindowSystem::add(DesktopWindow window) {
  const MutexLock lock(mutex_);
  frontToBack_.insert(frontToBack_.begin(), {std::move(window), std::nullopt});
}

void FakeWindowSystem::close(std::uint32_t window) {
  const MutexLock lock(mutex_);
  if (const auto found = find(window); found != frontToBack_.end()) frontToBack_.erase(found);
}

void FakeWindowSystem::failWith(std::optional<AXError> error) {
  const MutexLock lock(mutex_);
  failure_ = error;
}

void FakeWindowSystem::failListing(std::optional<AXError> error) {
  const MutexLock lock(mutex_);
  listFailure_ = error;
}

void FakeWindowSystem::setScreens(std::vector<Rect> frames) {
  const MutexLock lock(mutex_);
  screens_ = std::move(frames);
}

std::vector<FakeWindowSystem::Entry>::iterator FakeWindowSystem::find(std::uint32_t number) {
  return std::ranges::find_if(frontToBack_,
                              [number](const Entry& each) { return each.first.number == number; });
}

void FakeWindowSystem::dropThoseOfEndedProcesses() {
  std::erase_if(frontToBack_,
                [this](const Entry& each) { return !applications_.process(each.first.pid); });
}

std::optional<DesktopWindow> FakeWindowSystem::window(std::uint32_t number) {
  const MutexLock lock(mutex_);
  dropThoseOfEndedProcesses();
  const auto found = find(number);
  return found == frontToBack_.end() ? std::nullopt : std::optional(found->first);
}

bool FakeWindowSystem::fullScreen(std::uint32_t number) {
  const MutexLock lock(mutex_);
  const auto found = find(number);
  return found != frontToBack_.end() && found->second.has_value();
}

int FakeWindowSystem::operations() {
  const MutexLock lock(mutex_);
  return operations_;
}

std::expected<std::vector<DesktopWindow>, AXError> FakeWindowSystem::windows(
    std::optional<pid_t> pid) {
  const MutexLock lock(mutex_);
  if (listFailure_) return std::unexpected(*listFailure_);
  dropThoseOfEndedProcesses();
  std::vector<DesktopWindow> listed;
  for (const auto& [window, before] : frontToBack_) {
    if (!pid || window.pid == *pid) listed.push_back(window);
  }
  return listed;
}

std::expected<std::vector<Rect>, AXError> FakeWindowSystem::screens() {
  const MutexLock lock(mutex_);
  if (listFailure_) return std::unexpected(*listFailure_);
  return screens_;
}

AXError FakeWindowSystem::admit(std::uint32_t window, std::vector<Entry>::iterator& found) {
  ++operations_;
  dropThoseOfEndedProcesses();
  found = find(window);
  if (found == frontToBack_.end()) return AXError::invalidElement;
  return failure_.value_or(AXError::success);
}

AXError FakeWindowSystem::focus(std::uint32_t window) {
  const MutexLock lock(mutex_);
  std::vector<Entry>::iterator found;
  if (const AXError error = admit(window, found); error != AXError::success) return error;
  for (Entry& each : frontToBack_) each.first.focused = false;
  found->first.minimized = false;
  found->first.focused = true;
  applications_.setFrontmost(found->first.pid);
  std::rotate(frontToBack_.begin(), found, found + 1);
  return AXError::success;
}

AXError FakeWindowSystem::move(std::uint32_t window, Point to) {
  const MutexLock lock(mutex_);
  std::vector<Entry>::iterator found;
  if (const AXError error = admit(window, found); error != AXError::success) return error;
  if (std::max(std::abs(to.x), std::abs(to.y)) > largest) return AXError::illegalArgument;
  found->first.frame.x = to.x;
  found->first.frame.y = to.y;
  return AXError::success;
}

AXError FakeWindowSystem::resize(std::uint32_t window, double width, double height) {
  const MutexLock lock(mutex_);
  std::vector<Entry>::iterator found;
  if (const AXError error = admit(window, found); error != AXError::success) return error;
  if (std::max(width, height) > largest) return AXError::illegalArgument;
  found->first.frame.w = width;
  found->first.frame.h = height;
  return AXError::success;
}

AXError FakeWindowSystem::minimize(std::uint32_t window) {
  const MutexLock lock(mutex_);
  std::vector<Entry>::iterator found;
  if (const AXError error = admit(window, found); error != AXError::success) return error;
  found->first.minimized = true;
  found->first.focused = false;
  return AXError::success;
}

AXError FakeWindowSystem::toggleFullScreen(std::uint32_t window) {
  const MutexLock lock(mutex_);
  std::vector<Entry>::iterator found;
  if (const AXError error = admit(window, found); error != AXError::success) return error;
  auto& [shown, before] = *found;
  if (before)
    shown.frame = *std::exchange(before, std::nullopt);
  else
    before = std::exchange(shown.frame, {0, 0, 1920, 1080});
  return AXError::success;
}

}  // namespace vesko::fakes
