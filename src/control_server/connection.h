// One accepted connection: TLS handshake, one request, one answer, closed. Belongs to the server's
// I/O thread.
//
// The idle time runs from the start, so it bounds the handshake; each received chunk of the request
// and each written piece of the answer starts it anew; it rests while the request is served.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "control_server/http_request.h"
#include "control_server/http_response.h"
#include "control_server/idle_list.h"
#include "control_server/listener.h"
#include "control_server/tls_stream.h"

namespace vesko {

/// Received bytes; all memory that held them is zeroed before it is given back.
class ZeroingBuffer {
 public:
  ZeroingBuffer() = default;
  ZeroingBuffer(const ZeroingBuffer&) = delete;
  ZeroingBuffer& operator=(const ZeroingBuffer&) = delete;
  ~ZeroingBuffer() { clear(); }

  void append(std::string_view bytes);
  void clear();
  std::string_view view() const { return {bytes_.data(), bytes_.size()}; }
  std::size_t size() const { return bytes_.size(); }

 private:
  std::vector<char> bytes_;
};

class Connection;

/// What the connections of one server share.
struct ConnectionServices {
  SSL_CTX* tls;
  IdleList& idle;
  std::int64_t budgetLimit;
  /// Bytes of unfinished requests held in all buffers together.
  std::int64_t partialRequestBytes = 0;
  /// Room for one read of at most its size; holds nothing between two steps.
  std::span<char> readChunk;
  /// A complete request; the answer comes back through Connection::respond.
  std::function<void(Connection&, HTTPRequest)> serve;
  /// The last thing that a connection calls.
  std::function<void(Connection&)> closed;
};

class Connection final : public std::enable_shared_from_this<Connection>, private IdleList::Entry {
 public:
  /// `services` outlives the connection's closing.
  Connection(ConnectionServices& services, StreamSocket socket, std::uint64_t id);

  std::uint64_t id() const { return id_; }
  void start();
  /// Once, for the request given to `serve`; does nothing when the connection is closed by now.
  void respond(const HTTPResponse& response);
  /// Closes without an answer, whatever was going on.
  void close();

 private:
  enum class Phase { handshake, reading, serving, writing, draining, closed };

  void idleExpired() override { close(); }
  void waitFor(TlsStream::Status status);
  void step();
  void handshake();
  void read();
  bool receive(std::string_view chunk);
  void parse(bool peerEnded);
  void refuse(int status, std::string_view message);
  void write();
  void finish();
  void drain();
  void release();

  ConnectionServices& services_;
  StreamSocket socket_;
  const std::uint64_t id_;
  Phase phase_ = Phase::handshake;
  /// Made when the first byte arrives: a silent connection costs no TLS state.
  std::optional<TlsStream> tls_;
  ZeroingBuffer buffer_;
  HTTPRequestParser parser_;
  std::string answer_;
  std::size_t written_ = 0;
  bool closeNotified_ = false;
  bool peerMayStillSend_ = false;
  std::size_t drained_ = 0;
};

}  // namespace vesko
