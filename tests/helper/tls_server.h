// A real TLS server on the loopback interface whose answers a test scripts. Starts threads.
#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "helper/control_client.h"

namespace vesko {

/// "HTTP/1.1 200 OK" with the body and its length.
std::string httpAnswer(int status, std::string_view body);

class TlsServer {
 public:
  /// One accepted connection after its TLS handshake, on a thread of its own.
  class Connection {
   public:
    /// The whole request, by its Content-Length; shorter when the peer ends before.
    std::string readRequest();
    void write(std::string_view bytes);
    /// Blocks until the peer has closed or the server is destroyed.
    void waitForPeer();
    /// Ends the connection with a TCP reset.
    void reset();

   private:
    friend class TlsServer;
    TlsServer* server;
    SSL* ssl;
    int fd;
  };
  using Script = std::function<void(Connection&)>;

  static constexpr const char* token = "0123456789-the_secret_token";

  /// `maxVersion` is an OpenSSL protocol version, 0 for the newest.
  explicit TlsServer(Script script, int maxVersion = 0);
  ~TlsServer();

  std::uint16_t port() const { return port_; }
  std::string fingerprint() const { return fingerprint_; }
  ControlEndpoint endpoint() const { return {port_, token, fingerprint_}; }
  /// The companion's announcement of this server, without a newline.
  std::string announcement() const;

  /// Waits until that many connections have ended, TLS handshake failures included.
  void waitForConnections(std::size_t count);
  std::size_t applicationBytes() const { return applicationBytes_; }
  std::vector<std::string> requests();

 private:
  void serve();
  void serveOne(int fd);

  Script script_;
  std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> context_;
  std::string fingerprint_;
  UniqueFd listener_;
  UniqueFd stopRead_;
  UniqueFd stopWrite_;
  std::uint16_t port_ = 0;
  std::atomic<std::size_t> applicationBytes_{0};
  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t ended_ = 0;
  std::vector<std::string> requests_;
  std::vector<std::thread> connections_;
  std::thread thread_;
};

}  // namespace vesko
