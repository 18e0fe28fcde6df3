// A clipboard in memory that can refuse to be written.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/mutex.h"
#include "platform/pasteboard.h"

namespace vesko::fakes {

class FakePasteboard : public Pasteboard {
 public:
  std::optional<std::string> text() override {
    const MutexLock lock(mutex_);
    return text_;
  }
  [[nodiscard]] bool setText(std::string_view text) override {
    const MutexLock lock(mutex_);
    if (!writable_) return false;
    text_ = text;
    return true;
  }
  std::uint64_t reads() override {
    const MutexLock lock(mutex_);
    return reads_;
  }
  /// Nobody else runs, so what a paste waits for happens now: its target reads the text.
  void awaitReadBeyond(std::uint64_t seen, std::chrono::milliseconds) override {
    const MutexLock lock(mutex_);
    if (reads_ <= seen) reads_ = seen + 1;
  }
  void setWritable(bool writable) {
    const MutexLock lock(mutex_);
    writable_ = writable;
  }

 private:
  Mutex mutex_;
  std::optional<std::string> text_ VESKO_GUARDED_BY(mutex_);
  std::uint64_t reads_ VESKO_GUARDED_BY(mutex_) = 0;
  bool writable_ VESKO_GUARDED_BY(mutex_) = true;
};

}  // namespace vesko::fakes
