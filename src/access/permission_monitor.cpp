#include "access/permission_monitor.h"

#include <utility>

namespace vesko {
namespace {

template <class Field, class T>
void publishChange(Field& field, const T& value) {
  if (!(field.get() == value)) field.set(value);
}

}  // namespace

DaemonGrantReading PermissionMonitor::readGrants(PermissionProbes& probes,
                                                 ProtectedGrants& grants) {
  return {.messages = grants.messages(),
          .notes = grants.notes(),
          .contacts = probes.contacts() == ContactsPermission::granted,
          .photosLibrary = grants.photosLibrary()};
}

PermissionMonitor::Reading PermissionMonitor::read(PermissionProbes& probes,
                                                   ProtectedGrants& grants) {
  return {.accessibility = probes.accessibilityTrusted(),
          .screenRecording = probes.screenCaptureAllowed(),
          .photos = probes.photos(),
          .messages = probes.automation(AutomationTarget::messages),
          .notes = probes.automation(AutomationTarget::notes),
          .grants = readGrants(probes, grants)};
}

void PermissionMonitor::seed() {
  context_.daemonGrants.update(readGrants(context_.probes, context_.grants));
}

void PermissionMonitor::start() {
  stop();
  beginReading();
  sleep();
}

void PermissionMonitor::stop() {
  macControlPermissionMonitorTask_.cancel();
  ++context_.state.permissionRefreshRevision;
  underWay_.reset();
}

void PermissionMonitor::refresh() {
  ++context_.state.permissionRefreshRevision;
  beginReading();
}

void PermissionMonitor::sleep() {
  macControlPermissionMonitorTask_ = context_.loop.after(interval, [this] {
    assertMainThread();
    tick();
  });
}

void PermissionMonitor::tick() {
  sleep();
  if (underWay_ == context_.state.permissionRefreshRevision) return;
  const ChangeCount now = changeCount();
  if (!now || now != published_) beginReading();
}

PermissionMonitor::ChangeCount PermissionMonitor::changeCount() const {
  const auto permissions = context_.probes.changeCount();
  const auto grants = context_.grants.changeCount();
  if (!permissions || !grants) return std::nullopt;
  return std::pair{*permissions, *grants};
}

void PermissionMonitor::beginReading() {
  const std::uint64_t revision = context_.state.permissionRefreshRevision;
  // Taken first: what changes while the probes are asked is found by the next tick.
  const ChangeCount count = changeCount();
  const bool posted = context_.queue.post([this, weak = std::weak_ptr(alive_), revision, count,
                                           &loop = context_.loop, &probes = context_.probes,
                                           &grants = context_.grants] {
    loop.post([this, weak, revision, count, reading = read(probes, grants)] {
      assertMainThread();
      if (weak.lock()) finishReading(revision, count, reading);
    });
  });
  underWay_ = revision;
  if (posted) return;
  // The next tick tries again.
  underWay_.reset();
  published_.reset();
}

void PermissionMonitor::finishReading(std::uint64_t revision, ChangeCount count,
                                      const Reading& reading) {
  if (revision != context_.state.permissionRefreshRevision) return;
  underWay_.reset();
  published_ = count;
  publish(reading);
}

void PermissionMonitor::publish(const Reading& reading) {
  AppState& state = context_.state;
  publishChange(state.accessibilityGranted, reading.accessibility);
  publishChange(state.screenRecordingGranted, reading.screenRecording);
  publishChange(state.photosPermission, reading.photos);
  publishChange(state.automationStatus, reading.messages);
  publishChange(state.notesAutomationStatus, reading.notes);
  context_.daemonGrants.update(reading.grants);
  context_.relaunch.update(reading.screenRecording);
}

}  // namespace vesko
