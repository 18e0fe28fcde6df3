// The helper's way to the question about automating Messages: a worker thread waits for the answer
// that the user gives on the main thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "access/permissions.h"
#include "base/main_loop.h"
#include "platform/permissions.h"

namespace vesko {

class AutomationApproval {
 public:
  /// Longer than most people need, shorter than a caller's patience.
  static constexpr std::chrono::seconds answerTime{25};
  /// Whoever waits holds a worker of the control server, and others have requests as well.
  static constexpr int maxWaiting = 2;

  /// All outlive this.
  AutomationApproval(MainLoop& loop, Permissions& permissions,
                     std::chrono::milliseconds bound = answerTime)
      : loop_(loop), permissions_(permissions), bound_(bound) {}

  struct Outcome {
    AutomationStatus status;  ///< notDetermined while the user has not answered
    bool alreadyGranted = false;
  };

  /// Any thread but the main one. Asks, or joins the question that is open, and waits for the
  /// answer up to the bound, to cancel(), and not at all while `maxWaiting` others wait.
  Outcome request();

  /// Any thread; final. Nobody waits any more.
  void cancel();

 private:
  struct State {
    std::mutex mutex;  // guards everything below
    std::condition_variable changed;
    int waiting = 0;
    bool cancelled = false;
  };

  MainLoop& loop_;
  Permissions& permissions_;
  const std::chrono::milliseconds bound_;
  const std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace vesko
