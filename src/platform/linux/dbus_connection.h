// A client's connection to a message bus that keeps many calls under way.
//
// Written for the reading of whole trees of accessible objects, where the time goes into the number
// of wake-ups and system calls: questions leave in one piece, and so do the answers arrive. General
// libraries send and receive each message by itself, and take messages of any size.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/unique_fd.h"
#include "platform/linux/dbus_message.h"

namespace vesko {

struct DBusReply {
  enum class Outcome {
    value,
    error,         ///< the peer refused; see errorName
    timedOut,      ///< the deadline passed, or the peer was given up
    disconnected,  ///< the bus is gone
  };
  Outcome outcome = Outcome::disconnected;
  std::string_view errorName = {};
  std::string_view signature = {};
  DBusReader body = {};

  /// Whether it is a value of exactly this type, so that the body may be read as one.
  bool is(std::string_view type) const { return outcome == Outcome::value && signature == type; }
};

/// One thread at a time.
class DBusConnection {
 public:
  using Clock = std::chrono::steady_clock;
  using Handler = std::move_only_function<void(const DBusReply&)>;
  /// Somebody on the bus, as peer() numbers them.
  using Peer = std::uint32_t;

  /// A peer that leaves everything unanswered for so long is given up: what was asked of it and
  /// what will be fails at once.
  static constexpr std::chrono::milliseconds patience{2000};
  /// Larger answers are thrown away as they arrive, and count as errors.
  static constexpr std::size_t maxMessageBytes = 32 << 20;

  /// Null when there is no bus there or it does not take us in time.
  static std::unique_ptr<DBusConnection> open(std::string_view addresses,
                                              Clock::time_point deadline);
  DBusConnection(const DBusConnection&) = delete;
  DBusConnection& operator=(const DBusConnection&) = delete;

  Peer peer(std::string_view name);
  const std::string& nameOf(Peer peer) const { return peers_[peer].name; }
  bool gaveUp(Peer peer) const { return peers_[peer].gaveUp; }

  /// `handler` is called exactly once, in run(), never from here. The number is for stopWaiting().
  std::uint32_t call(Peer peer, std::string_view path, std::string_view interface,
                     std::string_view member, const DBusArguments& arguments, Handler handler);
  /// The handler of that call is called no more; false when it was already. What was sent is done
  /// all the same.
  bool stopWaiting(std::uint32_t call);

  /// Sends and receives until every handler was called, also those of calls that handlers make; at
  /// the deadline what is left times out.
  void run(Clock::time_point deadline);

  /// Nothing is amiss and nothing left over: fit for another's use.
  bool reusable() const { return !broken_ && !abandonedCalls_; }
  /// Whether the bus closed the connection, as it does when it ends.
  bool closedByBus();
  /// Makes it as after open(); numbers of peers are void.
  void forget();

 private:
  struct Queued {
    std::uint32_t serial;
    std::size_t size;
  };
  struct PeerState {
    std::string name;
    std::string unsent;  ///< the messages of `queue`, from unsentAt on
    std::size_t unsentAt = 0;
    std::deque<Queued> queue;
    std::size_t underWay = 0;
    std::size_t answerBytes = 0;  ///< of a recent large answer, decaying
    Clock::time_point heard;
    bool gaveUp = false;
  };
  struct Pending {
    Peer peer;
    Handler handler;
  };

  explicit DBusConnection(UniqueFd socket);
  bool introduce(Clock::time_point deadline);
  bool greeted();
  void fillOut();
  void send();
  void receive();
  void takeMessages();
  void handle(const DBusMessage& message, std::size_t size);
  void finish(std::uint32_t serial, const DBusReply& reply);
  void giveUp(Peer peer);
  void failAll(DBusReply::Outcome outcome);
  Clock::time_point nextExpiry() const;

  UniqueFd socket_;
  bool broken_ = false;
  bool greeted_ = false;
  bool abandonedCalls_ = false;
  std::uint32_t lastSerial_ = 0;
  std::vector<PeerState> peers_;
  std::unordered_map<std::string, Peer> peerNumbers_;
  std::unordered_map<std::uint32_t, Pending> pending_;
  std::string out_;
  std::size_t outAt_ = 0;
  std::string in_;  ///< what was read lies in inAt_ .. inEnd_
  std::size_t inAt_ = 0;
  std::size_t inEnd_ = 0;
  std::size_t toSkip_ = 0;  ///< of a message that is too large
};

}  // namespace vesko
