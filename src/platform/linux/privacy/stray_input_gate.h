// Keeps a question from being answered by input that was meant for another window: it opens once
// nothing has been typed or clicked for a moment since the window came up. Main thread.
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

  /// The window has appeared or gets the keyboard: what is typed now may have been begun elsewhere.
  void close() {
    if (std::exchange(open_, false)) changed_(false);
    wait();
  }

  /// Something was typed or clicked; true when it may count.
  [[nodiscard]] bool admit() {
    if (!open_) wait();
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
  bool open_ = false;
  Timer timer_;
};

}  // namespace vesko
