#include "control_server/idle_list.h"

namespace vesko {

void IdleList::arm(Entry& entry) {
  if (entry.armed_) {
    entries_.splice(entries_.end(), entries_, entry.position_);
  } else {
    entry.position_ = entries_.insert(entries_.end(), &entry);
    entry.armed_ = true;
  }
  entry.deadline_ = std::chrono::steady_clock::now() + timeout_;
  if (!waiting_) waitForFirst();
}

void IdleList::disarm(Entry& entry) {
  if (!entry.armed_) return;
  entries_.erase(entry.position_);
  entry.armed_ = false;
}

void IdleList::waitForFirst() {
  waiting_ = true;
  timer_.expires_at(entries_.front()->deadline_);
  timer_.async_wait([this](const boost::system::error_code& error) {
    waiting_ = false;
    if (!error) expire();
  });
}

void IdleList::expire() {
  const auto now = std::chrono::steady_clock::now();
  while (!entries_.empty() && entries_.front()->deadline_ <= now) {
    Entry& entry = *entries_.front();
    disarm(entry);
    entry.idleExpired();
  }
  if (!entries_.empty() && !waiting_) waitForFirst();
}

}  // namespace vesko
