#include "access/permissions.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace vesko {

Permissions::Question Permissions::questionOf(AutomationTarget target) {
  return target == AutomationTarget::messages ? Question::messages : Question::notes;
}

void Permissions::enqueue(Question question, Closure ask) {
  if (std::ranges::find(questions_, question, &Waiting::question) != questions_.end()) return;
  questions_.push_back({question, std::move(ask)});
  if (questions_.size() == 1) askNext();
}

void Permissions::askNext() {
  if (!questions_.empty()) questions_.front().ask();
}

/// Where the user could not be asked, what the probe says is the answer.
template <class Status>
PermissionCallback<Status> Permissions::answer(
    std::string_view what, void (Permissions::*handle)(PermissionAnswer<Status>),
    Status (*probe)(PermissionProbes&)) {
  return
      [this, weak = std::weak_ptr(alive_), what, handle, probe](PermissionOutcome<Status> outcome) {
        assertMainThread();
        if (!weak.lock() || questions_.empty()) return;
        couldNotAsk_ = !outcome;
        if (!outcome) {
          context_.log.write(
              fmt::format("ERROR {} request could not be shown: {}", what, outcome.error()));
          outcome = PermissionAnswer<Status>{.status = probe(context_.probes), .asked = false};
        }
        // The turn ends first: who hears of the answer may ask for the next.
        questions_.pop_front();
        (this->*handle)(*outcome);
        askNext();
      };
}

void Permissions::requestAccessibility() {
  enqueue(Question::accessibility, [this] {
    assertMainThread();
    context_.requests.requestAccessibility(
        answer<bool>("accessibility", &Permissions::accessibilityAnswered,
                     [](PermissionProbes& probes) { return probes.accessibilityTrusted(); }));
  });
}

void Permissions::accessibilityAnswered(PermissionAnswer<bool> answer) {
  assertMainThread();
  context_.state.accessibilityGranted.set(answer.status);
  context_.monitor.refresh();
  context_.log.write(fmt::format("accessibility request granted={}", answer.status));
  // Nobody was asked because the user once said no: only the settings can change that.
  if (!answer.status && !answer.asked) openSettings(settingsPages::accessibility);
}

void Permissions::requestScreenRecording() {
  enqueue(Question::screenRecording, [this] {
    assertMainThread();
    context_.requests.requestScreenCapture(
        answer<bool>("screen recording", &Permissions::screenRecordingAnswered,
                     [](PermissionProbes& probes) { return probes.screenCaptureAllowed(); }));
  });
}

void Permissions::screenRecordingAnswered(PermissionAnswer<bool> answer) {
  assertMainThread();
  context_.log.write(fmt::format("screen recording request granted={}", answer.status));
  if (!answer.status) openSettings(settingsPages::screenCapture);
  context_.monitor.start();
}

void Permissions::requestPhotos() {
  enqueue(Question::photos, [this] {
    assertMainThread();
    context_.requests.requestPhotos(
        answer<PhotosPermission>("photos", &Permissions::photosAnswered,
                                 [](PermissionProbes& probes) { return probes.photos(); }));
  });
}

void Permissions::photosAnswered(PermissionAnswer<PhotosPermission> answer) {
  assertMainThread();
  context_.state.photosPermission.set(answer.status);
  context_.monitor.refresh();
  if (answer.status == PhotosPermission::denied) {
    context_.log.write("photos read permission denied; opening System Settings");
    openSettings(settingsPages::photos);
    return;
  }
  context_.log.write(fmt::format("photos read permission={}", json::wordOf(answer.status)));
}

void Permissions::requestContacts() {
  enqueue(Question::contacts, [this] {
    assertMainThread();
    context_.requests.requestContacts(
        answer<ContactsPermission>("contacts", &Permissions::contactsAnswered,
                                   [](PermissionProbes& probes) { return probes.contacts(); }));
  });
}

void Permissions::contactsAnswered(PermissionAnswer<ContactsPermission> answer) {
  assertMainThread();
  context_.log.write(
      fmt::format("contacts request granted={}", answer.status == ContactsPermission::granted));
  context_.monitor.refresh();
}

void Permissions::requestAutomation(AutomationTarget target,
                                    std::move_only_function<void(AutomationOutcome)> done) {
  if (done) automationWaiters_[target].push_back(std::move(done));
  enqueue(questionOf(target), [this, target] {
    assertMainThread();
    const bool messages = target == AutomationTarget::messages;
    context_.requests.requestAutomation(
        target,
        messages ? answer<AutomationStatus>("automation", &Permissions::messagesAnswered,
                                            [](PermissionProbes& probes) {
                                              return probes.automation(AutomationTarget::messages);
                                            })
                 : answer<AutomationStatus>("notes automation", &Permissions::notesAnswered,
                                            [](PermissionProbes& probes) {
                                              return probes.automation(AutomationTarget::notes);
                                            }));
  });
}

void Permissions::messagesAnswered(PermissionAnswer<AutomationStatus> answer) {
  assertMainThread();
  context_.state.automationStatus.set(answer.status);
  context_.log.write("automation request status=" + answer.status.text());
  automationAnswered(AutomationTarget::messages, answer);
}

void Permissions::notesAnswered(PermissionAnswer<AutomationStatus> answer) {
  assertMainThread();
  context_.state.notesAutomationStatus.set(answer.status);
  context_.log.write("notes automation request status=" + answer.status.text());
  automationAnswered(AutomationTarget::notes, answer);
}

void Permissions::automationAnswered(AutomationTarget target,
                                     PermissionAnswer<AutomationStatus> answer) {
  context_.monitor.refresh();
  if (answer.status.kind == AutomationStatus::Kind::denied && !answer.asked)
    openSettings(settingsPages::automation);
  for (AutomationWaiter& done : std::exchange(automationWaiters_[target], {}))
    done({answer.status, answer.asked});
}

void Permissions::openSettings(std::string_view page) {
  if (couldNotAsk_) return;
  context_.requests.openSettings(page, [this, weak = std::weak_ptr(alive_)](std::string reason) {
    assertMainThread();
    if (weak.lock()) context_.log.write("ERROR System Settings could not be opened: " + reason);
  });
}

void Permissions::cancel() {
  context_.requests.cancel();
  questions_.clear();
  automationWaiters_.clear();
}

}  // namespace vesko
