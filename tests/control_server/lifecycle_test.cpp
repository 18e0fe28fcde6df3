// The server as a whole: handshake lines, failing listeners, stopping, many connections, file
// descriptors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <atomic>
#include <latch>
#include <memory>
#include <string>
#include <vector>

#include "control_server/fixtures.h"

namespace vesko::test {
namespace {

struct WireHandshake {
  std::string veskokit;
  std::uint16_t port = 0;
  std::string token, fingerprint;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("veskokit", &WireHandshake::veskokit),
                      json::field("port", &WireHandshake::port),
                      json::field("token", &WireHandshake::token),
                      json::field("cert_sha256", &WireHandshake::fingerprint)};
  }
};

/// Breaks the socket that listens at the port, under the server's hands.
bool breakListener(std::uint16_t port) {
  for (const int fd : openDescriptors()) {
    int listening = 0;
    socklen_t size = sizeof listening;
    sockaddr_in address{};
    socklen_t addressSize = sizeof address;
    if (::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 && listening &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &addressSize) == 0 &&
        ntohs(address.sin_port) == port) {
      return ::shutdown(fd, SHUT_RDWR) == 0;
    }
  }
  return false;
}

/// Sets the soft limit of file descriptors for its lifetime.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t soft) {
    ::getrlimit(RLIMIT_NOFILE, &former_);
    const rlimit wanted{soft, former_.rlim_max};
    set_ = ::setrlimit(RLIMIT_NOFILE, &wanted) == 0;
  }
  ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &former_); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;
  explicit operator bool() const { return set_; }

 private:
  rlimit former_{};
  bool set_ = false;
};

TEST(ControlServer, HandshakeTellsHowToReachIt) {
  RunningServer one, two;
  const auto handshake = json::decode<WireHandshake>(one.firstHandshake);
  ASSERT_TRUE(handshake) << one.firstHandshake;
  EXPECT_TRUE(one.firstHandshake.starts_with(R"({"veskokit":"control_server","port":)"));
  EXPECT_EQ(one.server->handshake(), one.firstHandshake);
  EXPECT_EQ(handshake->port, one.port);
  EXPECT_EQ(handshake->token, one.server->token());
  TlsClient client(handshake->port);
  EXPECT_EQ(client.peerFingerprint(), handshake->fingerprint);

  EXPECT_NE(one.server->token(), two.server->token());
  EXPECT_NE(one.server->certificateFingerprint(), two.server->certificateFingerprint());
}

TEST(ControlServer, ListensOnLoopbackOnly) {
  RunningServer running;
  const UniqueFd fd(::socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in other{};
  other.sin_family = AF_INET;
  other.sin_port = htons(running.port);
  other.sin_addr.s_addr = htonl(0x7F000002);  // 127.0.0.2 is local too, but not ours
  EXPECT_NE(::connect(fd.get(), reinterpret_cast<const sockaddr*>(&other), sizeof other), 0);
}

TEST(ControlServer, RestartsAfterAListenerFailure) {
  RunningServer running({.restartDelay = std::chrono::milliseconds(10)});
  const auto before = json::decode<WireHandshake>(running.firstHandshake);
  TlsClient open(running.port);
  ASSERT_TRUE(open.connected());
  ASSERT_TRUE(breakListener(running.port));
  EXPECT_FALSE(running.failures.take().value_or("").empty());
  EXPECT_EQ(open.readAll(), "");  // every connection went with the listener

  const auto after = json::decode<WireHandshake>(running.ready.take().value_or(""));
  ASSERT_TRUE(before && after);
  EXPECT_NE(after->port, before->port);
  EXPECT_EQ(after->token, before->token);
  EXPECT_EQ(after->fingerprint, before->fingerprint);
  running.port = after->port;
  EXPECT_EQ(running.server->readyPort(), after->port);
  EXPECT_EQ(running.ask("GET", "/healthz"), healthy);
  EXPECT_TRUE(running.failures.empty());
}

TEST(ControlServer, StopPreventsAPendingRestart) {
  RunningServer running({.restartDelay = std::chrono::hours(1)});
  ASSERT_TRUE(breakListener(running.port));
  ASSERT_TRUE(running.failures.take());
  EXPECT_EQ(running.server->readyPort(), std::nullopt);
  EXPECT_EQ(running.server->handshake(), std::nullopt);
  running.server->stop();  // returns, though the restart is an hour away
  EXPECT_TRUE(running.ready.empty());
}

TEST(ControlServer, StopClosesConnectionsDropsQueuedRequestsAndDoesNotWaitForTools) {
  std::latch begun(1), release(1);
  std::atomic<int> called = 0;
  const Route slow{"GET", "/slow", Precondition::none, [&](const HTTPRequest&) {
                     if (++called == 1) begun.count_down();
                     release.wait();
                     return HTTPResponse{200, "{}", {}};
                   }};
  {
    RunningServer running({.maxWorkers = 1}, {slow});
    TlsClient waiting(running.port), silent(running.port), queued(running.port);
    waiting.send(running.request("GET", "/slow"));
    begun.wait();
    queued.send(running.request("GET", "/slow"));
    EXPECT_EQ(running.ask("GET", "/healthz"), healthy);  // the queued one was met before this
    running.server->stop();
    EXPECT_EQ(waiting.readAll() + silent.readAll() + queued.readAll(), "");
    EXPECT_FALSE(connectLoopback(running.port));
    running.server->stop();
    release.count_down();
  }
  EXPECT_EQ(called, 1);
}

TEST(ControlServer, IsDestroyedWithoutHavingBeenStarted) {
  FixedProbes probes;
  EXPECT_TRUE(ControlServer::create(coreRoutes(probes), probes));
}

TEST(ControlServer, AThousandIdleConnections) {
  const DescriptorLimit limit(4096);
  ASSERT_TRUE(limit);
  RunningServer running({.idleTimeout = std::chrono::minutes(5)});
  std::vector<std::unique_ptr<TlsClient>> clients;
  for (int i = 0; i < 1000; ++i) {
    clients.push_back(std::make_unique<TlsClient>(running.port));
    ASSERT_TRUE(clients.back()->connected()) << i;
  }
  EXPECT_EQ(running.ask("GET", "/healthz"), healthy);
  for (const auto& client : clients) {
    ASSERT_TRUE(client->send(running.request("GET", "/healthz")));
    ASSERT_EQ(client->readAll(), healthy);
  }
}

TEST(ControlServer, LeaksNoDescriptors) {
  RunningServer running;
  running.ask("GET", "/status");
  const std::size_t before = openDescriptors().size();
  for (int i = 0; i < 100; ++i) {
    running.ask("GET", "/healthz");
    TlsClient(running.port).reset();
    connectLoopback(running.port);
    TlsClient half(running.port);
    half.send("GET");
  }
  // The server learns of the last ends a moment later; every further request lets it catch up.
  for (int i = 0; i < 1000 && openDescriptors().size() > before; ++i)
    running.ask("GET", "/healthz");
  EXPECT_LE(openDescriptors().size(), before);
}

TEST(ControlServer, AcceptingRestsWhileDescriptorsAreOut) {
  RunningServer running({.acceptRetry = std::chrono::milliseconds(10)});
  TlsClient established(running.port);
  ASSERT_TRUE(established.connected());
  UniqueFd late(::socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(running.port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  {
    const DescriptorLimit none(0);
    ASSERT_TRUE(none);
    ASSERT_EQ(::connect(late.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    // This answer comes after the listener's turn: accepting has failed by then.
    established.send(running.request("GET", "/healthz"));
    EXPECT_EQ(established.readAll(), healthy);
  }
  TlsClient client(std::move(late));
  ASSERT_TRUE(client.connected());
  client.send(running.request("GET", "/healthz"));
  EXPECT_EQ(client.readAll(), healthy);
  EXPECT_TRUE(running.failures.empty());
}

}  // namespace
}  // namespace vesko::test
