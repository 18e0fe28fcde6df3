// Observable fields: a value that tells its owner's observers whenever it is set. Main thread.
#pragma once

#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "base/main_thread.h"

namespace vesko {

/// Keeps an observer registered; destroying it ends the observation. May outlive the observed.
class Subscription {
 public:
  Subscription() = default;
  explicit Subscription(std::shared_ptr<void> token) : token_(std::move(token)) {}

 private:
  std::shared_ptr<void> token_;
};

/// The observers of one object, told which of its fields was set.
template <class Field>
class Observers {
 public:
  using Observer = std::function<void(Field)>;

  [[nodiscard]] Subscription add(Observer observer) {
    assertMainThread();
    auto token = std::make_shared<Observer>(std::move(observer));
    observers_.push_back(token);
    return Subscription(token);
  }

  /// Observers added by an observer hear of the next change; removed ones are not called again.
  void notify(Field field) {
    assertMainThread();
    ++depth_;
    const std::size_t count = observers_.size();
    for (std::size_t i = 0; i < count; ++i) {
      if (const auto observer = observers_[i].lock()) (*observer)(field);
    }
    // An observer may set another field: only the outermost round may move the entries.
    if (--depth_ == 0)
      std::erase_if(observers_, [](const auto& observer) { return observer.expired(); });
  }

 private:
  std::vector<std::weak_ptr<Observer>> observers_;
  int depth_ = 0;
};

template <class Field, class T>
class Published {
 public:
  Published(Observers<Field>& observers, Field field, T initial)
      : observers_(observers), field_(field), value_(std::move(initial)) {}
  Published(const Published&) = delete;
  Published& operator=(const Published&) = delete;

  const T& get() const { return value_; }
  const T& operator*() const { return value_; }
  const T* operator->() const { return &value_; }

  void set(T value) {
    value_ = std::move(value);
    observers_.notify(field_);
  }

 private:
  Observers<Field>& observers_;
  Field field_;
  T value_;
};

}  // namespace vesko
