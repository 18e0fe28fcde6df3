#include "access/automation_approval.h"

#include <optional>
#include <utility>

namespace vesko {

AutomationApproval::Outcome AutomationApproval::request() {
  const Outcome pending{.status = {AutomationStatus::Kind::notDetermined}};
  const auto answer = std::make_shared<std::optional<Outcome>>();
  std::unique_lock lock(state_->mutex);
  if (state_->cancelled || state_->waiting >= maxWaiting) return pending;
  ++state_->waiting;
  loop_.post([this, state = state_, answer] {
    assertMainThread();
    {
      // After cancel() the permissions may be gone.
      const std::lock_guard guard(state->mutex);
      if (state->cancelled) return;
    }
    permissions_.requestAutomation(
        AutomationTarget::messages, [state, answer](Permissions::AutomationOutcome outcome) {
          const std::lock_guard guard(state->mutex);
          const bool granted = outcome.status.kind == AutomationStatus::Kind::granted;
          *answer = Outcome{outcome.status, granted && !outcome.asked};
          state->changed.notify_all();
        });
  });
  state_->changed.wait_for(lock, bound_, [&] { return answer->has_value() || state_->cancelled; });
  --state_->waiting;
  return answer->value_or(pending);
}

void AutomationApproval::cancel() {
  const std::lock_guard lock(state_->mutex);
  state_->cancelled = true;
  state_->changed.notify_all();
}

}  // namespace vesko
