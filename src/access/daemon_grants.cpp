#include "access/daemon_grants.h"

#include <fmt/format.h>

#include <utility>

namespace vesko {
namespace {

void publish(auto& field, const auto& value) {
  if (field.get() != value) field.set(value);
}

}  // namespace

void DaemonGrantWatch::update(const DaemonGrantReading& now) {
  const bool first = !std::exchange(state_.contactsPermissionBaselineSeeded, true);
  const DaemonGrantReading before = std::exchange(previous_, now);
  publish(state_.messagesAccessGranted, now.messages.granted && now.messages.readable);
  publish(state_.notesAccessGranted, now.notes.granted && now.notes.readable);
  publish(state_.contactsGranted, now.contacts);
  publish(state_.photosLibraryGranted, now.photosLibrary);
  if (first) return;
  bool relaunch = logChanges(before, now);
  if (now.photosLibrary && !before.photosLibrary) {
    log_.write("photos library grant acknowledged; relaunching daemon in 2 seconds");
    photosRelaunch_ = loop_.after(photosDelay, [this] {
      assertMainThread();
      relaunchDaemon_();
    });
  } else if (before.photosLibrary && !now.photosLibrary) {
    log_.write("photos library grant revoked");
    relaunch = true;
  }
  if (!relaunch) return;
  // The daemon that starts now is told of the library as well.
  photosRelaunch_.cancel();
  relaunchDaemon_();
}

bool DaemonGrantWatch::logChanges(const DaemonGrantReading& before, const DaemonGrantReading& now) {
  bool changed = false;
  const auto log = [&](const std::string& line) {
    log_.write(line + " — relaunching daemon");
    changed = true;
  };
  if (now.messages != before.messages)
    log(fmt::format("messages grant={} canReadChatDB={}", now.messages.granted,
                    now.messages.readable));
  if (before.notes.granted && !now.notes.granted) {
    log("notes grant revoked");
  } else if (now.notes != before.notes) {
    log(fmt::format("notes grant={} canReadNoteStore={}", now.notes.granted, now.notes.readable));
  }
  if (now.contacts != before.contacts) log(fmt::format("contacts grant={}", now.contacts));
  return changed;
}

}  // namespace vesko
