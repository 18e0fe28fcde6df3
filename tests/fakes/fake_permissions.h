// The user's permissions in memory, a desktop that asks for them, and a background queue whose jobs
// run when a test lets them.
#pragma once

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "base/background_queue.h"
#include "base/mutex.h"
#include "platform/permission_requests.h"

namespace vesko::fakes {

struct GrantedPermissions {
  bool accessibility = false;
  bool screenCapture = false;
  PhotosPermission photos = PhotosPermission::notDetermined;
  ContactsPermission contacts = ContactsPermission::notDetermined;
  AutomationStatus messages{AutomationStatus::Kind::notDetermined};
  AutomationStatus notes{AutomationStatus::Kind::notDetermined};
  bool privacyWindow = false;
};

/// Any thread.
class FakePermissionProbes : public PermissionProbes {
 public:
  bool accessibilityTrusted() override { return now().accessibility; }
  bool screenCaptureAllowed() override { return now().screenCapture; }
  PhotosPermission photos() override { return now().photos; }
  ContactsPermission contacts() override { return now().contacts; }
  AutomationStatus automation(AutomationTarget target) override {
    return target == AutomationTarget::messages ? now().messages : now().notes;
  }
  std::optional<std::uint64_t> changeCount() override {
    const MutexLock lock(mutex_);
    return tells_ ? std::optional(changes_) : std::nullopt;
  }
  bool privacyWindowShown() override { return now().privacyWindow; }

  void change(const std::function<void(GrantedPermissions&)>& how) {
    const MutexLock lock(mutex_);
    how(granted_);
    ++changes_;
  }
  /// Whether changeCount() knows.
  void tellChanges(bool tells) {
    const MutexLock lock(mutex_);
    tells_ = tells;
  }
  /// How often a permission was read.
  int reads() {
    const MutexLock lock(mutex_);
    return reads_;
  }

 private:
  GrantedPermissions now() {
    const MutexLock lock(mutex_);
    ++reads_;
    return granted_;
  }

  Mutex mutex_;
  GrantedPermissions granted_ VESKO_GUARDED_BY(mutex_);
  std::uint64_t changes_ VESKO_GUARDED_BY(mutex_) = 0;
  int reads_ VESKO_GUARDED_BY(mutex_) = 0;
  bool tells_ VESKO_GUARDED_BY(mutex_) = true;
};

/// Keeps each question until the test answers it. Main thread.
class FakePermissionRequests : public PermissionRequests {
 public:
  void requestAccessibility(PermissionCallback<bool> done) override {
    open.push_back({"accessibility", std::move(done)});
  }
  void requestScreenCapture(PermissionCallback<bool> done) override {
    open.push_back({"screen", std::move(done)});
  }
  void requestPhotos(PermissionCallback<PhotosPermission> done) override {
    open.push_back({"photos", std::move(done)});
  }
  void requestContacts(PermissionCallback<ContactsPermission> done) override {
    open.push_back({"contacts", std::move(done)});
  }
  void requestAutomation(AutomationTarget target,
                         PermissionCallback<AutomationStatus> done) override {
    open.push_back({target == AutomationTarget::messages ? "messages" : "notes", std::move(done)});
  }
  void openSettings(std::string_view page,
                    std::move_only_function<void(std::string)> failed) override {
    pages.emplace_back(page);
    if (!settingsFailure.empty()) failed(settingsFailure);
  }
  void cancel() override { open.clear(); }

  using Callback =
      std::variant<PermissionCallback<bool>, PermissionCallback<PhotosPermission>,
                   PermissionCallback<ContactsPermission>, PermissionCallback<AutomationStatus>>;
  struct Question {
    std::string what;
    Callback done;
  };

  /// Answers the first open question.
  template <class Status>
  void answer(PermissionOutcome<Status> outcome) {
    Question question = std::move(open.front());
    open.pop_front();
    std::get<PermissionCallback<Status>>(question.done)(std::move(outcome));
  }

  std::deque<Question> open;
  std::vector<std::string> pages;
  std::string settingsFailure;  ///< when set, openSettings() fails with it
};

/// One thread.
class StandingQueue : public BackgroundQueue {
 public:
  bool post(std::move_only_function<void()> job) override {
    if (!refuses) jobs.push_back(std::move(job));
    return !refuses;
  }
  void run() {
    while (!jobs.empty()) {
      auto job = std::move(jobs.front());
      jobs.pop_front();
      job();
    }
  }

  std::deque<std::move_only_function<void()>> jobs;
  bool refuses = false;
};

}  // namespace vesko::fakes
