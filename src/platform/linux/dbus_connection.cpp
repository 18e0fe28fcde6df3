#include "platform/linux/dbus_connection.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/linux/dbus_address.h"

namespace vesko {
namespace {

// More calls under way bring nothing; fewer let the application wait for us.
constexpr std::size_t maxUnderWay = 512;
// Until a peer has shown how large its answers are.
constexpr std::size_t firstUnderWay = 128;
// What the answers under way may come to: they pile up in the bus when we are slow.
constexpr std::size_t answerBudget = 8 << 20;
constexpr std::size_t outChunk = 64 << 10;
constexpr std::size_t inChunk = 256 << 10;

constexpr std::string_view busName = "org.freedesktop.DBus";
constexpr std::string_view busPath = "/org/freedesktop/DBus";

int millisecondsUntil(DBusConnection::Clock::time_point time) {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(time - DBusConnection::Clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, 3600 * 1000));
}

}  // namespace

DBusConnection::DBusConnection(UniqueFd socket) : socket_(std::move(socket)) {}

std::unique_ptr<DBusConnection> DBusConnection::open(std::string_view addresses,
                                                     Clock::time_point deadline) {
  UniqueFd socket = connectToDBus(addresses);
  if (!socket) return nullptr;
  std::unique_ptr<DBusConnection> connection(new DBusConnection(std::move(socket)));
  return connection->introduce(deadline) ? std::move(connection) : nullptr;
}

bool DBusConnection::introduce(Clock::time_point deadline) {
  // EXTERNAL: the user id, which the socket proves. Nothing waits for the answer to each line.
  std::string hexUser;
  for (const char digit : fmt::to_string(::geteuid()))
    hexUser += fmt::format("{:02x}", static_cast<unsigned char>(digit));
  out_.assign(1, '\0');
  out_ += fmt::format("AUTH EXTERNAL {}\r\nBEGIN\r\n", hexUser);
  bool welcome = false;
  call(peer(busName), busPath, busName, "Hello", {},
       [&](const DBusReply& reply) { welcome = reply.is("s"); });
  run(deadline);
  return welcome;
}

DBusConnection::Peer DBusConnection::peer(std::string_view name) {
  const auto [found, added] =
      peerNumbers_.try_emplace(std::string(name), static_cast<Peer>(peers_.size()));
  if (added) peers_.emplace_back().name = name;
  return found->second;
}

std::uint32_t DBusConnection::call(Peer peer, std::string_view path, std::string_view interface,
                                   std::string_view member, const DBusArguments& arguments,
                                   Handler handler) {
  PeerState& state = peers_[peer];
  const std::uint32_t serial = ++lastSerial_ == 0 ? ++lastSerial_ : lastSerial_;
  const std::size_t before = state.unsent.size();
  appendDBusCall(state.unsent, {state.name, path, interface, member}, arguments, serial);
  state.queue.push_back({serial, state.unsent.size() - before});
  pending_.emplace(serial, Pending{peer, std::move(handler)});
  return serial;
}

bool DBusConnection::stopWaiting(std::uint32_t call) {
  const auto found = pending_.find(call);
  if (found == pending_.end()) return false;
  PeerState& peer = peers_[found->second.peer];
  if (peer.underWay > 0) --peer.underWay;
  abandonedCalls_ = true;
  pending_.erase(found);
  return true;
}

void DBusConnection::fillOut() {
  const auto now = Clock::now();
  for (PeerState& peer : peers_) {
    const std::size_t window =
        peer.answerBytes == 0
            ? firstUnderWay
            : std::clamp<std::size_t>(answerBudget / peer.answerBytes, 1, maxUnderWay);
    while (!peer.queue.empty() && peer.underWay < window && out_.size() - outAt_ < outChunk) {
      const Queued next = peer.queue.front();
      peer.queue.pop_front();
      out_.append(peer.unsent, peer.unsentAt, next.size);
      peer.unsentAt += next.size;
      if (peer.underWay++ == 0) peer.heard = now;
    }
    if (peer.queue.empty()) {
      peer.unsent.clear();
      peer.unsentAt = 0;
    }
  }
}

void DBusConnection::send() {
  while (outAt_ < out_.size()) {
    const ssize_t sent = ::send(socket_.get(), out_.data() + outAt_, out_.size() - outAt_,
                                MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && errno == EAGAIN) return;
    if (sent < 0) {
      broken_ = true;
      return;
    }
    outAt_ += static_cast<std::size_t>(sent);
  }
  out_.clear();
  outAt_ = 0;
}

void DBusConnection::receive() {
  if (in_.size() - inEnd_ < inChunk / 2) {
    // What is left of a message moves to the front before the buffer grows.
    std::memmove(in_.data(), in_.data() + inAt_, inEnd_ - inAt_);
    inEnd_ -= std::exchange(inAt_, 0);
    if (in_.size() - inEnd_ < inChunk / 2) in_.resize(inEnd_ + std::max(inChunk, inEnd_));
  }
  const ssize_t count =
      ::recv(socket_.get(), in_.data() + inEnd_, in_.size() - inEnd_, MSG_DONTWAIT);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) {
    broken_ = true;
    return;
  }
  inEnd_ += static_cast<std::size_t>(count);
  takeMessages();
}

bool DBusConnection::greeted() {
  if (greeted_) return true;
  const std::string_view read(in_.data() + inAt_, inEnd_ - inAt_);
  const auto end = read.find("\r\n");
  if (end == std::string_view::npos) {
    broken_ = broken_ || read.size() > 1024;
    return false;
  }
  greeted_ = read.starts_with("OK ");
  broken_ = broken_ || !greeted_;
  inAt_ += end + 2;
  return greeted_;
}

void DBusConnection::takeMessages() {
  if (!greeted()) return;
  while (!broken_) {
    if (toSkip_ > 0) {
      const std::size_t skipped = std::min(toSkip_, inEnd_ - inAt_);
      inAt_ += skipped;
      toSkip_ -= skipped;
      if (toSkip_ > 0) break;
    }
    const std::string_view read(in_.data() + inAt_, inEnd_ - inAt_);
    if (read.size() < dbusFixedHeaderBytes) break;
    const auto size = dbusMessageSize(read);
    if (!size) {
      broken_ = true;
      return;
    }
    if (*size > maxMessageBytes) {
      // Its head says whose answer it would be; the bus sends no head of this size.
      const auto head = dbusMessageHeadSize(read);
      if (head > inChunk / 4) {
        broken_ = true;
        return;
      }
      if (read.size() < head) break;
      if (const auto message = parseDBusMessage(read.substr(0, head)))
        finish(message->replySerial, {.outcome = DBusReply::Outcome::error});
      toSkip_ = *size;
      continue;
    }
    if (read.size() < *size) {
      if (in_.size() - inAt_ < *size) in_.resize(inAt_ + *size);
      break;
    }
    // A handler may make calls but never receives, so the views stay what they are.
    const auto message = parseDBusMessage(read.substr(0, *size));
    inAt_ += *size;
    if (message) handle(*message, *size);
  }
  if (inAt_ == inEnd_) inAt_ = inEnd_ = 0;
}

void DBusConnection::handle(const DBusMessage& message, std::size_t size) {
  const bool isError = message.type == DBusMessage::Type::error;
  if (!isError && message.type != DBusMessage::Type::reply) return;
  const auto found = pending_.find(message.replySerial);
  if (found == pending_.end()) return;
  PeerState& peer = peers_[found->second.peer];
  // Anybody on the bus may send what looks like an answer.
  if (peer.name.starts_with(':') && message.sender != peer.name && message.sender != busName)
    return;
  peer.answerBytes = std::max(size, peer.answerBytes - peer.answerBytes / 8);
  finish(message.replySerial,
         {.outcome = isError ? DBusReply::Outcome::error : DBusReply::Outcome::value,
          .errorName = message.errorName,
          .signature = message.signature,
          .body = DBusReader(message.body)});
}

void DBusConnection::finish(std::uint32_t serial, const DBusReply& reply) {
  const auto found = pending_.find(serial);
  if (found == pending_.end()) return;
  Pending pending = std::move(found->second);
  pending_.erase(found);
  PeerState& peer = peers_[pending.peer];
  if (peer.underWay > 0) --peer.underWay;
  peer.heard = Clock::now();
  pending.handler(reply);
}

void DBusConnection::giveUp(Peer number) {
  PeerState& peer = peers_[number];
  peer.gaveUp = true;
  abandonedCalls_ = abandonedCalls_ || peer.underWay > 0;
  peer.underWay = 0;
  peer.queue.clear();
  peer.unsent.clear();
  peer.unsentAt = 0;
  std::vector<Handler> handlers;
  for (auto entry = pending_.begin(); entry != pending_.end();) {
    if (entry->second.peer != number) {
      ++entry;
      continue;
    }
    handlers.push_back(std::move(entry->second.handler));
    entry = pending_.erase(entry);
  }
  for (Handler& handler : handlers) handler({.outcome = DBusReply::Outcome::timedOut});
}

void DBusConnection::failAll(DBusReply::Outcome outcome) {
  abandonedCalls_ = true;
  // Handlers may ask more, which fails likewise.
  while (!pending_.empty()) {
    auto failed = std::exchange(pending_, {});
    for (PeerState& peer : peers_) {
      peer.queue.clear();
      peer.unsent.clear();
      peer.unsentAt = 0;
      peer.underWay = 0;
    }
    for (auto& [serial, pending] : failed) pending.handler({.outcome = outcome});
  }
}

DBusConnection::Clock::time_point DBusConnection::nextExpiry() const {
  auto next = Clock::time_point::max();
  for (const PeerState& peer : peers_)
    if (peer.underWay > 0) next = std::min(next, peer.heard + patience);
  return next;
}

void DBusConnection::run(Clock::time_point deadline) {
  while (!pending_.empty() && !broken_) {
    for (Peer number = 0; number < peers_.size(); ++number)
      if (peers_[number].gaveUp && !peers_[number].queue.empty()) giveUp(number);
    fillOut();
    send();
    const auto until = std::min(deadline, nextExpiry());
    pollfd socket{socket_.get(), POLLIN, 0};
    if (outAt_ < out_.size()) socket.events |= POLLOUT;
    if (!pending_.empty() && !broken_) ::poll(&socket, 1, millisecondsUntil(until));
    if (socket.revents & (POLLIN | POLLHUP | POLLERR)) receive();
    const auto now = Clock::now();
    if (now >= deadline) break;
    for (Peer number = 0; number < peers_.size(); ++number) {
      const PeerState& peer = peers_[number];
      if (peer.underWay > 0 && now >= peer.heard + patience) giveUp(number);
    }
  }
  if (!pending_.empty())
    failAll(broken_ ? DBusReply::Outcome::disconnected : DBusReply::Outcome::timedOut);
}

bool DBusConnection::closedByBus() {
  // The bus tells us our name and the like unasked; what nobody waits for is dropped here.
  pollfd socket{socket_.get(), POLLIN, 0};
  while (!broken_ && ::poll(&socket, 1, 0) > 0) receive();
  return broken_;
}

void DBusConnection::forget() {
  peers_.clear();
  peerNumbers_.clear();
  if (in_.size() > 4 * inChunk && inAt_ == inEnd_) {
    in_ = {};
    inAt_ = inEnd_ = 0;
  }
}

}  // namespace vesko
