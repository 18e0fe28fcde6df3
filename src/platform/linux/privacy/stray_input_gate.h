// Keeps a question from being answered by input that was meant for another window: it opens once
// the window has had the keyboard for a moment in which nothing was typed or clicked. Main thread.
#pragma once

#include <functional>
#include <utility>

#include "base/main_loop.h"

namespace vesko {

class StrayInputGate {
 public:
  static constexpr Duration quiet = std::chrono::milliseconds(800);

  /// `changed` hears each time the gate opens or closes.
  StrayInputGate(MainLoop& loop, std::function<void(bool open)> changed)
      : loop_(loop), changed_(std::move(changed)) {}

  bool open() const { return open_; }

  /// The window got the keyboard, when what is typed may have been begun elsewhere, or lost it.
  void setFocused(bool focused) {
    focused_ = focused;
    timer_.cancel();
    if (std::exchange(open_, false)) changed_(false);
    if (focused) wait();
  }

  /// Something was typed or clicked; true when it may count.
  [[nodiscard]] bool admit() {
    if (!open_ && focused_) wait();
    return open_;
  }

 private:
  void wait() {
    timer_ = loop_.after(quiet, [this] {
      open_ = true;
      changed_(true);
    });
  }

  MainLoop& loop_;
  std::function<void(bool)> changed_;
  bool focused_ = false;
  bool open_ = false;
  Timer timer_;
};

}  // namespace vesko
