// The helper as a process: its life, its files, its streams and its local socket.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <mutex>

#include "base/file.h"
#include "base/json.h"
#include "helper/bounded_lines.h"
#include "helper/child_process.h"
#include "helper/local_socket.h"
#include "helper/tls_server.h"
#include "support/temporary_directory.h"

namespace vesko {
namespace {

constexpr int boundMs = 30000;

/// A local program that speaks bytes, well-formed or not.
class RawClient {
 public:
  explicit RawClient(const std::filesystem::path& directory) {
    auto connected = connectLocalSocket(directory / localSocketName);
    if (connected) {
      fd_ = std::move(*connected);
    } else {
      error_ = connected.error();
    }
  }

  bool connected() const { return static_cast<bool>(fd_); }
  const std::string& error() const { return error_; }
  void send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t count = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count < 0) return;
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
  }
  void endInput() { ::shutdown(fd_.get(), SHUT_WR); }
  void close() { fd_.reset(); }

  /// The next answer; empty when the helper has closed or the bound passes.
  std::string receive() {
    for (;;) {
      if (auto line = lines_.next()) return line->text;
      pollfd ready{.fd = fd_.get(), .events = POLLIN, .revents = 0};
      if (::poll(&ready, 1, boundMs) != 1) return {};
      std::array<char, 65536> chunk;
      const ssize_t count = ::read(fd_.get(), chunk.data(), chunk.size());
      if (count <= 0) return {};
      lines_.append({chunk.data(), static_cast<std::size_t>(count)});
    }
  }
  std::string ask(const std::string& line) {
    send(line + "\n");
    return receive();
  }

 private:
  UniqueFd fd_;
  std::string error_;
  BoundedLines lines_{256 << 20};
};

const char* const statusRequest = R"({"id":1,"op":"status"})";

bool present(const std::filesystem::path& path) {
  struct stat info{};
  return ::lstat(path.c_str(), &info) == 0;
}

mode_t modeOf(const std::filesystem::path& path) {
  struct stat info{};
  ::lstat(path.c_str(), &info);
  return info.st_mode & 07777;
}

class HelperProcessTest : public testing::Test {
 protected:
  HelperProcessTest() { signal(SIGPIPE, SIG_IGN); }

  const std::filesystem::path& state() const { return scratch_.path(); }
  std::filesystem::path socketFile() const { return state() / localSocketName; }

  support::TemporaryDirectory scratch_;
};

TEST_F(HelperProcessTest, ReportsItsPresenceInWholeAsciiLinesAndKeepsItsIdentity) {
  std::string id;
  for (int run = 0; run < 2; ++run) {
    HelperProcess helper(
        {.stateDirectory = state(),
         .variables = {{"VESKOKIT_VERSION", "1.2.3"}, {"VESKOKIT_DEVICE_NAME", "B\xC3\xBCro"}}});
    helper.waitUntilServing();
    ASSERT_EQ(helper.writes().size(), 2u);
    EXPECT_EQ(helper.writes()[0], "[veskokit-status] {\"state\":\"connecting\"}\n");
    const std::string prefix = "[veskokit-status] {\"state\":\"connected\",\"deviceId\":\"";
    ASSERT_TRUE(helper.writes()[1].starts_with(prefix)) << helper.writes()[1];
    const std::string reported = helper.writes()[1].substr(prefix.size(), 36);
    if (run == 1) EXPECT_EQ(reported, id);
    id = reported;
    EXPECT_EQ(*readFile(state() / "device-id", 100), id + "\n");
    EXPECT_EQ(modeOf(state() / "device-id"), 0600u);
    EXPECT_EQ(modeOf(socketFile()), 0600u);

    const auto answer = json::parse(RawClient(state()).ask(statusRequest));
    ASSERT_TRUE(answer && answer->find("body"));
    EXPECT_EQ(*answer->find("body")->find("version")->asString(), "1.2.3");
    EXPECT_EQ(*answer->find("body")->find("device_id")->asString(), id);
    EXPECT_EQ(*answer->find("body")->find("device_name")->asString(), "B\xC3\xBCro");
    EXPECT_EQ(answer->find("body")->find("control_server")->asBool(), false);

    helper.closeInput();
    EXPECT_EQ(helper.waitForExit(), 0);
    EXPECT_FALSE(present(socketFile()));
    for (const std::string& write : helper.writes()) {
      EXPECT_EQ(std::ranges::count(write, '\n'), 1) << write;
      EXPECT_TRUE(write.ends_with('\n')) << write;
    }
  }
}

TEST_F(HelperProcessTest, ReplacesADamagedIdentityAndSaysSo) {
  for (const std::string& damaged :
       {std::string(), std::string("not-an-id\n"), std::string(9000, 'x'),
        std::string("0b149f10-e61d-465a-8f99-a54dba2a69c6")}) {
    SCOPED_TRACE(damaged.substr(0, 40));
    ASSERT_TRUE(replaceFile(state() / "device-id", damaged, 0600));
    HelperProcess helper({.stateDirectory = state()});
    helper.waitUntilServing();
    helper.closeInput();
    EXPECT_EQ(helper.waitForExit(), 0);
    EXPECT_NE(helper.allOutput().find("device id file was damaged"), std::string::npos);
    EXPECT_NE(*readFile(state() / "device-id", 100), damaged);
  }
}

TEST_F(HelperProcessTest, RefusesToStartWithoutAUsableEnvironment) {
  std::filesystem::create_directory(state() / "locked");
  std::filesystem::create_directories(state() / "blocked" / "device-id");
  ::chmod((state() / "locked").c_str(), 0500);
  ::chmod(state().c_str(), 0755);
  const bool root = ::geteuid() == 0;
  const struct {
    const char* what;
    HelperProcess::Options options;
    const char* message;
  } cases[] = {
      {"no variable", {.stateDirectory = ""}, "VESKOKIT_STATE_DIR is not set"},
      {"no directory", {.stateDirectory = state() / "absent"}, "cannot be used: No such file"},
      {"read-only",
       {.stateDirectory = state() / "locked",
        .user = root ? std::optional<uid_t>(65534) : std::nullopt},
       "cannot be used: Permission denied"},
      {"unreadable identity", {.stateDirectory = state() / "blocked"}, "cannot read"},
      {"bad parent",
       {.stateDirectory = state(), .variables = {{"VESKOKIT_PARENT_PID", "12x"}}},
       "VESKOKIT_PARENT_PID is not a process id"},
      {"another's child",
       {.stateDirectory = state(), .variables = {{"VESKOKIT_PARENT_PID", "999999999"}}},
       "did not start this helper"},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.what);
    HelperProcess helper(item.options);
    EXPECT_EQ(helper.waitForExit(), 1);
    EXPECT_NE(helper.allOutput().find(item.message), std::string::npos) << helper.allOutput();
    EXPECT_FALSE(present(socketFile()));
  }
}

TEST_F(HelperProcessTest, EndsInOrderWhenAsked) {
  for (const int number : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(number);
    HelperProcess helper({.stateDirectory = state()});
    helper.waitUntilServing();
    ::kill(helper.pid(), number);
    EXPECT_EQ(helper.waitForExit(), 0);
    EXPECT_FALSE(present(socketFile()));
  }
}

TEST_F(HelperProcessTest, EndsWithItsParentThoughItsInputStaysOpen) {
  HelperProcess helper({.stateDirectory = state(), .withParentOfItsOwn = true});
  helper.waitUntilServing();
  ::kill(helper.parent(), SIGKILL);
  EXPECT_TRUE(waitForEnd(helper.pid()));
  EXPECT_NE(helper.waitFor("the companion is gone"), "");
  EXPECT_FALSE(present(socketFile()));
}

TEST_F(HelperProcessTest, TakesTheSocketOverFromADeadHelperAndFromAnEndingOne) {
  {
    HelperProcess killed({.stateDirectory = state()});
    killed.waitUntilServing();
    ::kill(killed.pid(), SIGKILL);
    EXPECT_EQ(killed.waitForExit(), 128 + SIGKILL);
  }
  EXPECT_TRUE(present(socketFile()));
  EXPECT_FALSE(RawClient(state()).connected());

  HelperProcess first({.stateDirectory = state()});
  first.waitUntilServing();
  HelperProcess second({.stateDirectory = state()});
  second.waitUntilServing();
  first.closeInput();
  EXPECT_EQ(first.waitForExit(), 0);
  const auto answer = json::parse(RawClient(state()).ask(statusRequest));
  ASSERT_TRUE(answer) << "the successor's socket is gone";
  EXPECT_EQ(answer->find("body")->find("pid")->asInteger(), second.pid());
}

TEST_F(HelperProcessTest, ServesBelowAPathThatNoSocketAddressCanHold) {
  auto deep = state();
  while (deep.native().size() < 300) deep /= std::string(50, 'd');
  std::filesystem::create_directories(deep);
  ASSERT_GT(deep.native().size(), sizeof(sockaddr_un::sun_path));
  HelperProcess helper({.stateDirectory = deep});
  helper.waitUntilServing();
  EXPECT_NE(RawClient(deep).ask(statusRequest).find("\"ok\":true"), std::string::npos);
  helper.closeInput();
  EXPECT_EQ(helper.waitForExit(), 0);
  EXPECT_FALSE(present(deep / localSocketName));
}

TEST_F(HelperProcessTest, ServesItsOwnUserOnly) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs a second user";
  ::chmod(state().c_str(), 0755);
  const auto theirs = state() / "theirs";
  std::filesystem::create_directory(theirs);
  ASSERT_EQ(::chown(theirs.c_str(), 65534, 65534), 0);
  HelperProcess helper({.stateDirectory = theirs, .user = 65534});
  helper.waitUntilServing();
  // The file's mode does not keep root out; the helper does, and our own side refuses as well.
  const RawClient refused(theirs);
  EXPECT_NE(refused.error().find("belongs to another user"), std::string::npos) << refused.error();
  EXPECT_NE(helper.waitFor("refused a local client of another user"), "");

  HelperProcess ours({.stateDirectory = state()});
  ours.waitUntilServing();
  const pid_t other = ::fork();
  if (other == 0) {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(3);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketFile().native().copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ::_exit(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 ? 1
            : errno == EACCES                                                         ? 0
                                                                                      : 2);
  }
  int status = -1;
  ::waitpid(other, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST_F(HelperProcessTest, AnswersTheCompanionsCommandsAndRemembersItsNotices) {
  HelperProcess helper(
      {.stateDirectory = state(), .variables = {{"VESKOKIT_GRANTED_DIRS", "/a\n/b"}}});
  helper.waitUntilServing();
  const std::pair<const char*, const char*> lines[] = {
      {R"({"cmd":"assistant_import_detect"})",
       "[veskokit:assistant-import] "
       "{\"state\":\"complete\",\"source\":\"openclaw\",\"pagesSent\":0,"
       "\"pagesTotal\":0,\"files\":0,\"bytes\":0,\"cronJobs\":0,\"redactions\":0,"
       "\"skippedOversized\":0,\"detectionComplete\":true,\"detectedSources\":[]}\n"},
      {R"({"cmd":"assistant_import_start","source":"hermes"})",
       "\"error\":\"assistant import is not available in the local helper\""},
      {R"({"cmd":"history_export_start","intent":"fresh"})",
       "[veskokit:history] {\"state\":\"failed\""},
      {R"({"type":"system_will_sleep"})", "going to sleep"},
      {R"({"type":"system_did_wake"})", "woke up"},
      {R"({"cmd":"dance","secret":"hush"})", "ignored a line of kind dance from the companion"},
      {"{\"type\":\"two words hush\"}", "ignored a line of unknown kind"},
      {R"({"secret":"hush"})", "ignored a line of unknown kind"},
      {"hush", "dropped a line from the companion that is not a JSON object"},
      {"\"hush\"", "dropped a line from the companion that is not a JSON object"},
      {R"({"veskokit":"control_server","port":70000,"token":"hush","cert_sha256":""})",
       "ignored an announcement of the control server"},
      {R"({"veskokit":"control_server","port":7000,"token":"hush","cert_sha256":"12"})",
       "ignored an announcement of the control server"},
      {R"({"type":"photos_library","path":"/p"})", "Photos library granted"},
      {R"({"type":"granted_dirs","dirs":[1]})", "ignored a granted_dirs line"},
      {R"({"type":"granted_dirs","dirs":["/c"]})", "granted folders: 1"},
  };
  for (const auto& [line, expected] : lines) {
    helper.send(line);
    EXPECT_NE(helper.waitFor(expected), "") << line << "\n" << helper.allOutput();
  }
  const std::string status = RawClient(state()).ask(statusRequest);
  EXPECT_NE(status.find(R"("granted_dirs":["/c"],"photos_library":"/p")"), std::string::npos)
      << status;
  EXPECT_EQ(helper.allOutput().find("hush"), std::string::npos) << helper.allOutput();
}

TEST_F(HelperProcessTest, SurvivesAFloodOnItsInput) {
  HelperProcess helper({.stateDirectory = state()});
  helper.waitUntilServing();
  const std::string piece(1 << 20, 'x');
  for (int i = 0; i < 99; ++i) {
    // Raw bytes of one line: only the last piece ends it.
    std::string_view rest = piece;
    while (!rest.empty()) rest.remove_prefix(helper.sendRaw(rest));
  }
  helper.send(piece);
  EXPECT_NE(helper.waitFor("too long"), "");
  helper.send(R"({"type":"system_did_wake"})");
  EXPECT_NE(helper.waitFor("woke up"), "");
  EXPECT_EQ(helper.allOutput().find("too long"), helper.allOutput().rfind("too long"));
}

TEST_F(HelperProcessTest, CallsTheLatestControlServerThatWasAnnounced) {
  const auto answering = [](const char* name) {
    return [name](TlsServer::Connection& connection) {
      connection.readRequest();
      connection.write(httpAnswer(200, std::string("{\n \"server\": \"") + name + "\"\n}"));
    };
  };
  TlsServer first(answering("first"));
  TlsServer second(answering("second"));
  HelperProcess helper({.stateDirectory = state()});
  helper.waitUntilServing();
  RawClient client(state());
  const std::string call = R"({"id":"x","op":"call","path":"/a","body":{"k":"\u00e4"}})";
  EXPECT_NE(client.ask(call).find(R"("id":"x","ok":false,"error":{"code":"not_ready")"),
            std::string::npos);
  for (TlsServer* server : {&first, &second}) {
    helper.send(server->announcement());
    helper.waitFor("control server announced");
    EXPECT_EQ(client.ask(call),
              std::string(R"({"id":"x","ok":true,"status":200,"body":{  "server": ")") +
                  (server == &first ? "first" : "second") + "\" }}");
    EXPECT_TRUE(server->requests().at(0).ends_with("\r\n\r\n{\"k\":\"\xC3\xA4\"}"));
  }
  // What follows is refused, and the last good announcement stays.
  helper.send(R"({"veskokit":"control_server","port":0,"token":"t","cert_sha256":""})");
  helper.waitFor("ignored an announcement");
  EXPECT_NE(client.ask(call).find("second"), std::string::npos);

  TlsServer impostor(answering("impostor"));
  std::string announcement = impostor.announcement();
  announcement.replace(announcement.size() - 66, 64, first.fingerprint());
  helper.send(announcement);
  helper.waitFor("control server announced");
  EXPECT_NE(client.ask(call).find("\"code\":\"untrusted\""), std::string::npos);
  impostor.waitForConnections(1);
  EXPECT_EQ(impostor.applicationBytes(), 0u);
  EXPECT_EQ(helper.allOutput().find(TlsServer::token), std::string::npos);
}

TEST_F(HelperProcessTest, AnswersEveryKindOfRequestLine) {
  TlsServer server([](TlsServer::Connection& connection) {
    const std::string request = connection.readRequest();
    connection.write(httpAnswer(200, request.starts_with("GET /text") ? "text" : "{}"));
  });
  HelperProcess helper({.stateDirectory = state()});
  helper.waitUntilServing();
  helper.send(server.announcement());
  helper.waitFor("control server announced");
  RawClient client(state());
  const std::pair<std::string, const char*> cases[] = {
      {R"({"id":7,"op":"call","method":"GET","path":"/a"})",
       R"({"id":7,"ok":true,"status":200,"body":{}})"},
      {R"({"op":"call","path":"/a","timeout":1.5})", R"({"id":null,"ok":true,)"},
      {R"({"id":[1],"op":"call","path":"/a"})", R"({"id":null,"ok":true,)"},
      {R"({"id":1,"op":"call","method":"GET","path":"/text"})", "\"code\":\"bad_answer\""},
      {R"({"id":1,"op":"call"})", "\"code\":\"invalid_request\""},
      {R"({"id":1,"op":"call","path":"/a b"})", "\"code\":\"invalid_request\""},
      {R"({"id":1,"op":"call","path":"/a","method":"get"})", "\"code\":\"invalid_request\""},
      {R"({"id":1,"op":"call","path":"/a","timeout":0})", "\"code\":\"invalid_request\""},
      {R"({"id":1,"op":"call","path":"/a","timeout":601})", "\"code\":\"invalid_request\""},
      {R"({"id":1,"op":"call","path":"/a","timeout":"1"})", "\"code\":\"invalid_request\""},
      {R"({"id":3,"op":"dance"})", R"({"id":3,"ok":false,"error":{"code":"invalid_request",)"},
      {R"({"id":3})", R"({"id":3,"ok":false,"error":{"code":"invalid_request",)"},
      {"[]", "\"code\":\"invalid_request\""},
      {"{", "\"code\":\"invalid_request\""},
      {"\"\xFF\"", "\"code\":\"invalid_request\""},
      {"\r\n  \n" + std::string(statusRequest) + "\r", R"({"id":1,"ok":true,"body":{)"},
      {std::string(9 << 20, ' '), "\"code\":\"invalid_request\""},
  };
  for (const auto& [line, expected] : cases) {
    const std::string answer = client.ask(line);
    EXPECT_NE(answer.find(expected), std::string::npos) << line.substr(0, 200) << "\n" << answer;
  }
}

TEST_F(HelperProcessTest, KeepsTheOrderOfAConnectionAndAnswersAfterItsInputEnded) {
  TlsServer server([](TlsServer::Connection& connection) {
    connection.readRequest();
    connection.write(httpAnswer(200, "{}"));
  });
  HelperProcess helper({.stateDirectory = state()});
  helper.waitUntilServing();
  helper.send(server.announcement());
  helper.waitFor("control server announced");
  RawClient client(state());
  std::string lines;
  for (int i = 0; i < 20; ++i)
    lines +=
        R"({"id":)" + std::to_string(i) + R"(,"op":"call","path":"/)" + std::to_string(i) + "\"}\n";
  client.send(lines + statusRequest + "\n");
  client.endInput();
  for (int i = 0; i < 20; ++i)
    EXPECT_TRUE(client.receive().starts_with(R"({"id":)" + std::to_string(i) + ","));
  EXPECT_NE(client.receive().find("device_id"), std::string::npos);
  EXPECT_EQ(client.receive(), "");
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 20u);
  for (std::size_t i = 0; i < requests.size(); ++i)
    EXPECT_TRUE(requests[i].starts_with("POST /" + std::to_string(i) + " ")) << requests[i];
}

TEST_F(HelperProcessTest, ServesFiftyClientsWhileOthersWaitForSlowCalls) {
  std::mutex mutex;
  std::condition_variable changed;
  bool released = false;
  int slow = 0;
  TlsServer server([&](TlsServer::Connection& connection) {
    if (connection.readRequest().starts_with("POST /slow")) {
      std::unique_lock lock(mutex);
      ++slow;
      changed.notify_all();
      changed.wait_for(lock, std::chrono::milliseconds(boundMs), [&] { return released; });
    }
    connection.write(httpAnswer(200, "{}"));
  });
  HelperProcess helper({.stateDirectory = state()});
  helper.waitUntilServing();
  helper.send(server.announcement());
  helper.waitFor("control server announced");
  std::vector<RawClient> waiting;
  for (int i = 0; i < 25; ++i) {
    waiting.emplace_back(state());
    waiting.back().send("{\"id\":1,\"op\":\"call\",\"path\":\"/slow\"}\n");
  }
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(
        changed.wait_for(lock, std::chrono::milliseconds(boundMs), [&] { return slow == 25; }));
  }
  // Five of them lose interest.
  for (int i = 0; i < 5; ++i) waiting[static_cast<std::size_t>(i)].close();
  std::vector<RawClient> quick;
  for (int i = 0; i < 50; ++i) quick.emplace_back(state());
  for (RawClient& client : quick) client.send("{\"id\":2,\"op\":\"call\",\"path\":\"/quick\"}\n");
  for (RawClient& client : quick)
    EXPECT_EQ(client.receive(), R"({"id":2,"ok":true,"status":200,"body":{}})");
  {
    const std::lock_guard lock(mutex);
    EXPECT_FALSE(released);
    released = true;
    changed.notify_all();
  }
  for (std::size_t i = 5; i < waiting.size(); ++i)
    EXPECT_EQ(waiting[i].receive(), R"({"id":1,"ok":true,"status":200,"body":{}})");
}

TEST_F(HelperProcessTest, TellsAClientTooManyThatItIsBusy) {
  HelperProcess helper({.stateDirectory = state()});
  helper.waitUntilServing();
  std::vector<RawClient> clients;
  for (std::size_t i = 0; i < 128; ++i) {
    clients.emplace_back(state());
    ASSERT_NE(clients.back().ask(statusRequest), "");
  }
  RawClient extra(state());
  EXPECT_NE(extra.receive().find("\"code\":\"busy\""), std::string::npos);
  EXPECT_EQ(extra.receive(), "");
  EXPECT_NE(clients.front().ask(statusRequest), "");
  // The place is free once the helper has seen one of them leave.
  clients.pop_back();
  std::string answer;
  for (int attempt = 0; attempt < 1000 && answer.find("\"ok\":true") == answer.npos; ++attempt)
    answer = RawClient(state()).ask(statusRequest);
  EXPECT_NE(answer.find("\"ok\":true"), std::string::npos);
}

TEST_F(HelperProcessTest, EndsAtOnceWithCallsInFlight) {
  std::mutex mutex;
  std::condition_variable changed;
  bool arrived = false;
  TlsServer server([&](TlsServer::Connection& connection) {
    connection.readRequest();
    {
      const std::lock_guard lock(mutex);
      arrived = true;
      changed.notify_all();
    }
    connection.waitForPeer();
  });
  HelperProcess helper({.stateDirectory = state()});
  helper.waitUntilServing();
  helper.send(server.announcement());
  helper.waitFor("control server announced");
  RawClient client(state());
  client.send("{\"id\":1,\"op\":\"call\",\"path\":\"/slow\",\"timeout\":600}\n");
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(
        changed.wait_for(lock, std::chrono::milliseconds(boundMs), [&] { return arrived; }));
  }
  ::kill(helper.pid(), SIGTERM);
  EXPECT_EQ(helper.waitForExit(), 0);
}

TEST_F(HelperProcessTest, DeliversALargeAnswerToASlowReader) {
  const std::string large(24 << 20, 'y');
  TlsServer server([&](TlsServer::Connection& connection) {
    connection.readRequest();
    connection.write(httpAnswer(200, "\"" + large + "\""));
  });
  HelperProcess helper({.stateDirectory = state()});
  helper.waitUntilServing();
  helper.send(server.announcement());
  helper.waitFor("control server announced");
  RawClient slow(state());
  slow.send("{\"id\":1,\"op\":\"call\",\"path\":\"/large\"}\n");
  server.waitForConnections(1);
  EXPECT_NE(RawClient(state()).ask(statusRequest), "");
  EXPECT_TRUE(slow.receive() == R"({"id":1,"ok":true,"status":200,"body":")" + large + "\"}");
}

}  // namespace
}  // namespace vesko
