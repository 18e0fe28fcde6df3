// One time-out for many connections. All of them wait equally long, so the list stays ordered by
// deadline when a re-armed entry moves to its end: arming is constant time, one timer serves all,
// and without armed entries nothing wakes. Belongs to the thread that runs the io_context.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <list>

namespace vesko {

class IdleList {
 public:
  class Entry {
   public:
    Entry() = default;
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

   protected:
    ~Entry() = default;

   private:
    friend class IdleList;
    /// Called disarmed; may arm again.
    virtual void idleExpired() = 0;

    std::list<Entry*>::iterator position_;
    std::chrono::steady_clock::time_point deadline_;
    bool armed_ = false;
  };

  IdleList(boost::asio::io_context& io, std::chrono::milliseconds timeout)
      : timer_(io), timeout_(timeout) {}

  /// From now on; an armed entry starts anew. The entry disarms before it is destroyed.
  void arm(Entry& entry);
  void disarm(Entry& entry);
  /// Lets go of the timer, so that the io_context can run out of work. Nothing is armed any more.
  void stop() { timer_.cancel(); }

 private:
  void waitForFirst();
  void expire();

  boost::asio::steady_timer timer_;
  const std::chrono::milliseconds timeout_;
  std::list<Entry*> entries_;
  bool waiting_ = false;
};

}  // namespace vesko
