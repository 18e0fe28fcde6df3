#include "control_server/connection.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <utility>

namespace vesko {
namespace {

namespace asio = boost::asio;
using boost::system::error_code;

/// An answer up to this size is in the peer's receive buffer once it is sent: loopback has no
/// bytes on the way.
constexpr std::size_t deliveredAtOnce = 16 * 1024;

/// How much of a request that was refused early is thrown away before the connection is cut.
constexpr std::size_t maxDrained = 8 * 1024 * 1024;

}  // namespace

void ZeroingBuffer::append(std::string_view bytes) {
  if (bytes_.size() + bytes.size() > bytes_.capacity()) {
    std::vector<char> larger;
    larger.reserve(std::max(bytes_.size() + bytes.size(), 2 * bytes_.capacity()));
    larger.assign(bytes_.begin(), bytes_.end());
    OPENSSL_cleanse(bytes_.data(), bytes_.size());
    bytes_ = std::move(larger);
  }
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
}

void ZeroingBuffer::clear() {
  OPENSSL_cleanse(bytes_.data(), bytes_.size());
  bytes_ = {};
}

Connection::Connection(ConnectionServices& services, StreamSocket socket, std::uint64_t id)
    : services_(services), socket_(std::move(socket)), id_(id) {}

void Connection::start() {
  services_.idle.arm(*this);
  waitFor(TlsStream::Status::wantRead);
}

void Connection::waitFor(TlsStream::Status status) {
  const auto direction = status == TlsStream::Status::wantWrite ? asio::socket_base::wait_write
                                                                : asio::socket_base::wait_read;
  socket_.async_wait(direction, [self = shared_from_this()](const error_code& error) {
    if (self->phase_ == Phase::closed) return;
    if (error) return self->close();
    self->step();
  });
}

void Connection::step() {
  switch (phase_) {
    case Phase::handshake:
      return handshake();
    case Phase::reading:
      return read();
    case Phase::writing:
      return write();
    case Phase::draining:
      return drain();
    case Phase::serving:
    case Phase::closed:
      return;
  }
}

void Connection::handshake() {
  if (!tls_) tls_.emplace(services_.tls, socket_.native_handle());
  const auto status = tls_->accept();
  const auto flushed = tls_->flush();
  if (flushed == TlsStream::Status::wantWrite) return waitFor(flushed);
  switch (status) {
    case TlsStream::Status::done:
      phase_ = Phase::reading;
      return read();
    case TlsStream::Status::wantRead:
    case TlsStream::Status::wantWrite:
      return flushed == TlsStream::Status::done ? waitFor(status) : close();
    case TlsStream::Status::ended:
    case TlsStream::Status::failed:
      return close();
  }
}

void Connection::read() {
  while (phase_ == Phase::reading) {
    std::size_t count = 0;
    const auto status = tls_->read(services_.readChunk, count);
    switch (status) {
      case TlsStream::Status::done: {
        const bool room = receive({services_.readChunk.data(), count});
        OPENSSL_cleanse(services_.readChunk.data(), count);
        if (!room) return refuse(413, "request budget exceeded");
        parse(false);
        break;
      }
      case TlsStream::Status::wantRead:
      case TlsStream::Status::wantWrite:
        // TLS itself may have had something to say, as an answer to a key update.
        return waitFor(tls_->flush() == TlsStream::Status::wantWrite ? TlsStream::Status::wantWrite
                                                                     : status);
      case TlsStream::Status::ended:
        return parse(true);
      case TlsStream::Status::failed:
        return close();
    }
  }
}

bool Connection::receive(std::string_view chunk) {
  const auto size = static_cast<std::int64_t>(chunk.size());
  if (services_.partialRequestBytes + size > services_.budgetLimit) return false;
  buffer_.append(chunk);
  services_.partialRequestBytes += size;
  return true;
}

void Connection::parse(bool peerEnded) {
  services_.idle.arm(*this);
  ParseResult result = parser_.advance(buffer_.view());
  if (const auto* failure = std::get_if<ParseFailure>(&result)) {
    refuse(failure->status, "invalid request");
  } else if (auto* request = std::get_if<HTTPRequest>(&result)) {
    release();
    services_.idle.disarm(*this);
    phase_ = Phase::serving;
    services_.serve(*this, std::move(*request));
  } else if (peerEnded) {
    refuse(400, "invalid request");
  }
}

void Connection::refuse(int status, std::string_view message) {
  release();
  peerMayStillSend_ = true;
  phase_ = Phase::serving;
  respond(errorResponse(status, message));
}

void Connection::respond(const HTTPResponse& response) {
  if (phase_ != Phase::serving) return;
  phase_ = Phase::writing;
  answer_ = serialize(response);
  services_.idle.arm(*this);
  write();
}

void Connection::write() {
  while (written_ < answer_.size()) {
    std::size_t taken = 0;
    const auto status = tls_->write(std::string_view(answer_).substr(written_), taken);
    if (status == TlsStream::Status::wantRead || status == TlsStream::Status::wantWrite)
      return waitFor(status);
    if (status != TlsStream::Status::done) return close();
    written_ += taken;
    services_.idle.arm(*this);
  }
  if (!closeNotified_) {
    const auto status = tls_->closeNotify();
    if (status == TlsStream::Status::wantWrite) return waitFor(status);
    closeNotified_ = true;
  }
  switch (tls_->flush()) {
    case TlsStream::Status::wantWrite:
      return waitFor(TlsStream::Status::wantWrite);
    case TlsStream::Status::done:
      return finish();
    default:
      return close();
  }
}

/// Closing a socket that has unread bytes, or gets some afterwards, resets the connection, and a
/// reset throws away what the peer has not received yet. So unless the whole answer has surely
/// arrived, only our side is ended and the peer's is read to its end.
void Connection::finish() {
  error_code error;
  const bool unread = tls_->hasUnreadInput() || socket_.available(error) > 0 || error;
  if (!peerMayStillSend_ && !unread && answer_.size() <= deliveredAtOnce) return close();
  socket_.shutdown(asio::socket_base::shutdown_send, error);
  if (error) return close();
  tls_.reset();
  answer_ = {};
  phase_ = Phase::draining;
  services_.idle.arm(*this);
  drain();
}

void Connection::drain() {
  while (drained_ <= maxDrained) {
    error_code error;
    const auto chunk = asio::buffer(services_.readChunk.data(), services_.readChunk.size());
    drained_ += socket_.read_some(chunk, error);
    if (error == asio::error::would_block) return waitFor(TlsStream::Status::wantRead);
    if (error) break;
  }
  close();
}

void Connection::release() {
  services_.partialRequestBytes = std::max<std::int64_t>(
      0, services_.partialRequestBytes - static_cast<std::int64_t>(buffer_.size()));
  buffer_.clear();
}

void Connection::close() {
  if (phase_ == Phase::closed) return;
  phase_ = Phase::closed;
  release();
  services_.idle.disarm(*this);
  tls_.reset();
  answer_ = {};
  error_code ignored;
  socket_.close(ignored);
  services_.closed(*this);
}

}  // namespace vesko
