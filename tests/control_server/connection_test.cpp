// Requests over real TLS connections: limits, pieces, early ends and ill-behaved peers.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/sslerr.h>
#include <poll.h>
#include <sys/socket.h>

#include <latch>
#include <string>
#include <vector>

#include "control_server/fixtures.h"

namespace vesko::test {
namespace {

constexpr std::chrono::milliseconds shortIdle{100};

Route bigAnswer(std::size_t bytes) {
  return {"GET", "/big", Precondition::none,
          [bytes](const HTTPRequest&) { return HTTPResponse{200, std::string(bytes, 'x'), {}}; }};
}

TEST(Connection, AnswersByteForByteAndCloses) {
  RunningServer running;
  TlsClient client(running.port);
  ASSERT_TRUE(client.connected());
  client.send(running.request("GET", "/healthz"));
  EXPECT_EQ(client.readAll(), healthy);
  EXPECT_TRUE(client.endedCleanly());
  EXPECT_EQ(running.ask("POST", "/divide", R"({"a":1,"b":2})").substr(0, 15), "HTTP/1.1 200 OK");
  TlsClient stranger(running.port);
  stranger.send("GET /healthz HTTP/1.1\r\n\r\n");
  EXPECT_EQ(stranger.readAll(), refusal(401, "unauthorized"));
}

TEST(Connection, OneByteAtATime) {
  RunningServer running;
  TlsClient client(running.port);
  for (const char c : running.request("POST", "/divide", R"({"a":8,"b":2})"))
    ASSERT_TRUE(client.send({&c, 1}));
  EXPECT_TRUE(client.readAll().ends_with(R"({"quotient":4})"));
}

TEST(Connection, PipelinedRequestIsIgnored) {
  RunningServer running;
  TlsClient client(running.port);
  const std::string twice = running.request("GET", "/healthz") + running.request("GET", "/status");
  ASSERT_TRUE(client.send(twice));
  EXPECT_EQ(client.readAll(), healthy);
}

TEST(Connection, EndBeforeTheWholeRequestIsRefused) {
  RunningServer running;
  const std::string whole = running.request("POST", "/divide", "{}");
  for (const std::size_t sent : {std::size_t{0}, std::size_t{20}, whole.size() - 1}) {
    for (const bool withNotify : {true, false}) {
      SCOPED_TRACE(std::to_string(sent) + (withNotify ? " close_notify" : " bare end"));
      TlsClient client(running.port);
      client.send(whole.substr(0, sent));
      withNotify ? client.closeNotify() : client.shutdownSending();
      EXPECT_EQ(client.readAll(), refusal(400, "invalid request"));
    }
  }
  TlsClient client(running.port);
  client.send(running.request("GET", "/healthz"));
  client.closeNotify();
  EXPECT_EQ(client.readAll(), healthy);
}

TEST(Connection, LimitsAreAnsweredWhileThePeerStillSends) {
  RunningServer running;
  const std::string flood(3 << 20, 'x');
  const std::vector<std::string> beginnings{"POST / HTTP/1.1\r\nContent-Length: 1048577\r\n\r\n",
                                            "GET / HTTP/1.1\r\nX: "};
  for (const std::string& beginning : beginnings) {
    SCOPED_TRACE(beginning);
    TlsClient client(running.port);
    EXPECT_TRUE(client.send(beginning + flood));
    EXPECT_EQ(client.readAll(), refusal(413, "invalid request"));
  }
  EXPECT_TRUE(running.ask("POST", "/divide", std::string(maxBodyBytes, ' '))
                  .ends_with(R"({"message":"invalid request"})"));
}

TEST(Connection, BudgetIsSharedByAllConnections) {
  RunningServer running({.maxPartialRequestBytes = 1000});
  const auto sized = [&](std::size_t bytes) {
    std::string text = running.request("GET", "/healthz");
    text.insert(text.size() - 2, "X: " + std::string(bytes - text.size() - 5, 'x') + "\r\n");
    return text;
  };
  ASSERT_EQ(sized(600).size(), 600U);
  TlsClient first(running.port);
  ASSERT_TRUE(first.send(sized(601).substr(0, 600)));
  // The I/O thread has met the first one's bytes before it finishes a handshake that began later.
  TlsClient second(running.port);
  second.send(sized(401));
  EXPECT_EQ(second.readAll(), refusal(413, "request budget exceeded"));
  TlsClient third(running.port);
  third.send(sized(400));
  EXPECT_EQ(third.readAll(), healthy);
  ASSERT_TRUE(first.send("\n"));
  EXPECT_EQ(first.readAll(), healthy);
  // All was given back.
  TlsClient fourth(running.port);
  fourth.send(sized(1000));
  EXPECT_EQ(fourth.readAll(), healthy);
}

TEST(Connection, SilentConnectionsAreClosedWithoutAnAnswer) {
  RunningServer running({.idleTimeout = shortIdle});
  const UniqueFd silent = connectLoopback(running.port);
  const UniqueFd halfHello = connectLoopback(running.port);
  ::send(halfHello.get(), "\x16\x03\x01\x02\x00\x01", 6, 0);
  TlsClient shaken(running.port);
  TlsClient begun(running.port);
  begun.send("GET / HT");
  bool clean = false;
  EXPECT_EQ(readToEnd(silent.get(), &clean), "");
  EXPECT_TRUE(clean);
  EXPECT_EQ(readToEnd(halfHello.get()), "");
  EXPECT_EQ(shaken.readAll(), "");
  EXPECT_EQ(begun.readAll(), "");
}

TEST(Connection, EachChunkStartsTheIdleTimeAnew) {
  RunningServer running({.idleTimeout = std::chrono::seconds(1)});
  TlsClient trickling(running.port);
  ASSERT_TRUE(trickling.send("GET /healthz HTTP/1.1\r\nX: "));
  const UniqueFd silent = connectLoopback(running.port);
  pollfd end{.fd = silent.get(), .events = POLLIN, .revents = 0};
  int trickled = 0;
  while (::poll(&end, 1, 20) == 0 && ++trickled < 30'000 / 20) ASSERT_TRUE(trickling.send("x"));
  EXPECT_EQ(readToEnd(silent.get()), "");
  trickling.send("\r\nAuthorization: Bearer " + running.server->token() + "\r\n\r\n");
  EXPECT_EQ(trickling.readAll(), healthy);
}

TEST(Connection, PeerThatDoesNotReadIsCutOff) {
  RunningServer running({.idleTimeout = shortIdle}, {bigAnswer(64 << 20)});
  TlsClient client(running.port);
  client.send(running.request("GET", "/big"));
  const std::size_t before = openDescriptors().size();
  // Each round lasts one idle time, until the server has closed its end of the big one.
  for (int round = 0; round < 300 && openDescriptors().size() >= before; ++round) {
    const UniqueFd silent = connectLoopback(running.port);
    readToEnd(silent.get());
  }
  EXPECT_LT(client.readAll().size(), std::size_t{64} << 20);
  EXPECT_FALSE(client.endedCleanly());
}

TEST(Connection, BigAnswerArrivesWhole) {
  constexpr std::size_t size = 8 << 20;
  RunningServer running({}, {bigAnswer(size)});
  TlsClient client(running.port);
  client.send(running.request("GET", "/big") + std::string(100'000, 'y'));
  const std::string answer = client.readAll();
  EXPECT_TRUE(answer.ends_with("\r\n\r\n" + std::string(size, 'x')));
  EXPECT_TRUE(client.endedCleanly());
}

TEST(Connection, ResetWhileTheAnswerIsWrittenDoesNoHarm) {
  RunningServer running({}, {bigAnswer(8 << 20)});
  for (int i = 0; i < 10; ++i) {
    TlsClient client(running.port);
    client.send(running.request("GET", "/big"));
    EXPECT_FALSE(client.readSome().empty());
    client.reset();
    EXPECT_EQ(running.ask("GET", "/healthz"), healthy);
  }
}

TEST(Connection, SlowToolHoldsUpNoOther) {
  std::latch begun(2), release(1);
  const Route slow{"GET", "/slow", Precondition::none, [&](const HTTPRequest&) {
                     begun.count_down();
                     release.wait();
                     return HTTPResponse{200, "{}", {}};
                   }};
  RunningServer running({}, {slow});
  TlsClient one(running.port), two(running.port);
  one.send(running.request("GET", "/slow"));
  two.send(running.request("GET", "/slow"));
  begun.wait();
  EXPECT_EQ(running.ask("GET", "/healthz"), healthy);
  EXPECT_TRUE(running.ask("GET", "/status").starts_with("HTTP/1.1 200"));
  two.reset();  // its answer finds nobody
  release.count_down();
  EXPECT_TRUE(one.readAll().ends_with("{}"));
  EXPECT_EQ(running.ask("GET", "/healthz"), healthy);
}

TEST(Connection, TlsVersions) {
  RunningServer running;
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    TlsClient client(running.port, {version, version});
    ASSERT_TRUE(client.connected());
    EXPECT_EQ(client.version(), version);
    client.send(running.request("GET", "/healthz"));
    EXPECT_EQ(client.readAll(), healthy);
  }
  for (const int version : {TLS1_VERSION, TLS1_1_VERSION}) {
    TlsClient client(running.port, {version, version});
    EXPECT_FALSE(client.connected());
    EXPECT_EQ(client.failureReason(), SSL_R_TLSV1_ALERT_PROTOCOL_VERSION);
  }
}

TEST(Connection, GarbageInsteadOfTlsIsDropped) {
  RunningServer running;
  const UniqueFd plain = connectLoopback(running.port);
  const std::string request = running.request("GET", "/healthz");
  ::send(plain.get(), request.data(), request.size(), 0);
  EXPECT_EQ(readToEnd(plain.get()).find("HTTP"), std::string::npos);
  EXPECT_EQ(running.ask("GET", "/healthz"), healthy);
}

}  // namespace
}  // namespace vesko::test
