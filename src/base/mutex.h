// A mutex and its lock guard that the thread-safety analysis understands.
#pragma once

#include <mutex>

#include "base/thread_annotations.h"

namespace vesko {

class VESKO_CAPABILITY("mutex") Mutex {
 public:
  void lock() VESKO_ACQUIRE() { mutex_.lock(); }
  void unlock() VESKO_RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

class VESKO_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) VESKO_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() VESKO_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace vesko
