// The listening socket on 127.0.0.1, at a port that the system chooses. Belongs to the thread that
// runs the io_context.
#pragma once

#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/basic_stream_socket.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <string>

namespace vesko {

using StreamSocket =
    boost::asio::basic_stream_socket<boost::asio::ip::tcp, boost::asio::io_context::executor_type>;

class Listener : public std::enable_shared_from_this<Listener> {
 public:
  struct Handlers {
    /// A non-blocking socket that child processes do not inherit.
    std::function<void(StreamSocket)> accepted;
    /// The socket broke, with the system's message. Called once at most; nothing follows.
    std::function<void(std::string)> failed;
  };

  /// `acceptRetry` is how long accepting rests when the process is out of file descriptors:
  /// connections then wait in the backlog. The error is the system's message.
  static std::expected<std::shared_ptr<Listener>, std::string> open(
      boost::asio::io_context& io, Handlers handlers, std::chrono::milliseconds acceptRetry);

  /// 0 when the socket has none.
  std::uint16_t port() const;
  void start() { waitForConnection(); }
  /// No handler is called after this.
  void close();

 private:
  using Acceptor = boost::asio::basic_socket_acceptor<boost::asio::ip::tcp,
                                                      boost::asio::io_context::executor_type>;

  Listener(boost::asio::io_context& io, Handlers handlers, std::chrono::milliseconds acceptRetry);
  void waitForConnection();
  void acceptAll();
  void rest();
  void fail(const boost::system::error_code& error);

  Acceptor acceptor_;
  boost::asio::steady_timer retryTimer_;
  Handlers handlers_;
  const std::chrono::milliseconds acceptRetry_;
};

}  // namespace vesko
