// A desktop in memory that takes synthetic input: it keeps the pointer, the pressed button, the
// keys that are down and the text typed into it, and the list of all events.
#pragma once

#include <cstddef>
#include <limits>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "base/mutex.h"
#include "platform/input_events.h"

namespace vesko::fakes {

class FakeInputEvents : public InputEvents {
 public:
  std::optional<Point> pointerLocation() override {
    const MutexLock lock(mutex_);
    if (accepted_ >= acceptAtMost_) return std::nullopt;
    return pointer_;
  }

  [[nodiscard]] bool post(std::span<const InputEvent> events) override {
    const MutexLock lock(mutex_);
    for (const InputEvent& event : events) {
      if (accepted_ >= acceptAtMost_) return false;
      ++accepted_;
      events_.push_back(event);
      std::visit([this](const auto& e) VESKO_REQUIRES(mutex_) { apply(e); }, event);
    }
    return true;
  }

  /// From then on the desktop refuses, as one that lost its display.
  void acceptAtMost(std::size_t count) {
    const MutexLock lock(mutex_);
    acceptAtMost_ = count;
  }
  void placePointer(Point at) {
    const MutexLock lock(mutex_);
    pointer_ = at;
  }
  Point pointer() {
    const MutexLock lock(mutex_);
    return pointer_;
  }
  bool anythingPressed() {
    const MutexLock lock(mutex_);
    return leftDown_ || rightDown_ || !keysDown_.empty();
  }
  std::u16string typed() {
    const MutexLock lock(mutex_);
    return typed_;
  }
  std::vector<InputEvent> takeEvents() {
    const MutexLock lock(mutex_);
    return std::exchange(events_, {});
  }

 private:
  void apply(const MouseEvent& event) VESKO_REQUIRES(mutex_) {
    using Kind = MouseEvent::Kind;
    pointer_ = event.at;
    if (event.kind == Kind::leftDown || event.kind == Kind::leftUp)
      leftDown_ = event.kind == Kind::leftDown;
    if (event.kind == Kind::rightDown || event.kind == Kind::rightUp)
      rightDown_ = event.kind == Kind::rightDown;
  }
  void apply(const ScrollEvent&) VESKO_REQUIRES(mutex_) {}
  void apply(const KeyEvent& event) VESKO_REQUIRES(mutex_) {
    if (event.down) {
      keysDown_.insert(event.key);
      typed_ += event.text;
    } else {
      keysDown_.erase(event.key);
    }
  }

  Mutex mutex_;
  std::vector<InputEvent> events_ VESKO_GUARDED_BY(mutex_);
  std::size_t accepted_ VESKO_GUARDED_BY(mutex_) = 0;
  std::size_t acceptAtMost_ VESKO_GUARDED_BY(mutex_) = std::numeric_limits<std::size_t>::max();
  Point pointer_ VESKO_GUARDED_BY(mutex_);
  bool leftDown_ VESKO_GUARDED_BY(mutex_) = false;
  bool rightDown_ VESKO_GUARDED_BY(mutex_) = false;
  std::set<VirtualKey> keysDown_ VESKO_GUARDED_BY(mutex_);
  std::u16string typed_ VESKO_GUARDED_BY(mutex_);
};

}  // namespace vesko::fakes
