// Asks the user for permissions, publishes the answers and opens the settings where an earlier
// answer stands. Main thread.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string_view>
#include <vector>

#include "access/permission_monitor.h"
#include "base/main_loop.h"
#include "base/main_thread.h"
#include "platform/permission_requests.h"
#include "state/app_log.h"
#include "state/app_state.h"

namespace vesko {

/// One question is open at a time and the others wait for their turn; a request for what is being
/// asked already, or waits to be, joins that question.
class Permissions {
 public:
  /// All outlive this.
  struct Context {
    AppState& state;
    AppLog& log;
    PermissionRequests& requests;
    PermissionProbes& probes;
    PermissionMonitor& monitor;
  };

  struct AutomationOutcome {
    AutomationStatus status;
    bool asked = false;
  };

  explicit Permissions(Context context) : context_(context) {}

  void requestAccessibility() VESKO_REQUIRES(mainThread);
  void requestScreenRecording() VESKO_REQUIRES(mainThread);
  void requestPhotos() VESKO_REQUIRES(mainThread);
  void requestContacts() VESKO_REQUIRES(mainThread);
  /// `done` gets the answer, once, unless cancel() comes first.
  void requestAutomation(AutomationTarget target,
                         std::move_only_function<void(AutomationOutcome)> done = {})
      VESKO_REQUIRES(mainThread);

  /// Drops all questions.
  void cancel() VESKO_REQUIRES(mainThread);

 private:
  enum class Question { accessibility, screenRecording, photos, contacts, messages, notes };
  struct Waiting {
    Question question;
    Closure ask;
  };
  using AutomationWaiter = std::move_only_function<void(AutomationOutcome)>;

  static Question questionOf(AutomationTarget target);
  void enqueue(Question question, Closure ask) VESKO_REQUIRES(mainThread);
  void askNext() VESKO_REQUIRES(mainThread);
  template <class Status>
  PermissionCallback<Status> answer(std::string_view what,
                                    void (Permissions::*handle)(PermissionAnswer<Status>),
                                    Status (*probe)(PermissionProbes&));
  void accessibilityAnswered(PermissionAnswer<bool> answer);
  void screenRecordingAnswered(PermissionAnswer<bool> answer);
  void photosAnswered(PermissionAnswer<PhotosPermission> answer);
  void contactsAnswered(PermissionAnswer<ContactsPermission> answer);
  void messagesAnswered(PermissionAnswer<AutomationStatus> answer);
  void notesAnswered(PermissionAnswer<AutomationStatus> answer);
  void automationAnswered(AutomationTarget target, PermissionAnswer<AutomationStatus> answer)
      VESKO_REQUIRES(mainThread);
  void openSettings(std::string_view page) VESKO_REQUIRES(mainThread);

  Context context_;
  /// The first one is open.
  std::deque<Waiting> questions_ VESKO_GUARDED_BY(mainThread);
  std::map<AutomationTarget, std::vector<AutomationWaiter>> automationWaiters_
      VESKO_GUARDED_BY(mainThread);
  /// The desktop could not show the open question, so nothing else can be shown either.
  bool couldNotAsk_ VESKO_GUARDED_BY(mainThread) = false;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace vesko
