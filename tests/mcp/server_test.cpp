// The server on real pipes and a real socket, before a companion that the test scripts.
#include "helper/mcp/server.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <deque>
#include <future>
#include <latch>
#include <set>
#include <thread>

#include "helper/bounded_lines.h"
#include "mcp/fake_helper.h"
#include "support/temporary_directory.h"

namespace vesko::mcp {
namespace {

using json::Value;

constexpr const char* stateless =
    R"("_meta":{"io.modelcontextprotocol/protocolVersion":"2026-07-28","io.modelcontextprotocol/clientCapabilities":{}})";

/// A window with one field and one button, that answers as the companion's routes do.
class Desktop {
 public:
  test::FakeHelper::Answer answer(const std::string& path, const Value& body) {
    const std::lock_guard lock(mutex_);
    const auto has = [&](const char* key) { return body.find(key) != nullptr; };
    const auto text = [&](const char* key) { return *body.find(key)->asString(); };
    asked.push_back(path);
    if (auto& answers = scripted[path]; !answers.empty()) {
      auto next = std::move(answers.front());
      answers.pop_front();
      return next;
    }
    if (path == "/window/list") {
      const bool some = has("bundle_id") || has("name");
      if (some && !running) return {400, R"({"message":"application not found"})"};
      const std::string front =
          inFront.empty() || (some && !inFront.contains(R"("bundle_id":"a")")) ? "" : inFront + ",";
      return {
          200,
          fmt::format(
              R"({{"windows":[{}{{"bundle_id":"a","title":"{}","window_id":5,)"
              R"("frame":{{"x":{},"y":20,"w":300,"h":200}},"focused":{},"minimized":false}}]}})",
              front, title, windowX, inFront.empty())};
    }
    if (path == "/app/activate" || path == "/app/quit" || path == "/window/focus")
      return {200, R"({"ok":true})"};
    if (path == "/app/launch")
      return {400, R"({"message":"application launch failed: the program \"foo\" was not found"})"};
    if (path == "/window/move") {
      if (obeys) windowX = static_cast<int>(*body.find("x")->asDouble());
      return {200, R"({"ok":true})"};
    }
    if (path == "/ax/snapshot") {
      const std::string window = "AXApplication[a]/AXWindow[title=" + title + "]";
      if (has("element_path") && (text("element_path").ends_with("gone") ||
                                  (retitles && !window.starts_with(text("element_path")) &&
                                   !text("element_path").starts_with(window))))
        return {200, R"({"ok":false,"error":{"code":"ax_element_gone","message":"it is gone"}})"};
      if (has("element_path") && text("element_path") == "AXApplication[a]")
        return {200,
                fmt::format(R"({{"tree":{{"role":"AXApplication","path":"AXApplication[a]",)"
                            R"("children":[{{"role":"AXWindow","path":"{}","children":[]}}]}}}})",
                            window)};
      const std::string field = fmt::format(
          R"({{"role":"AXTextField","value":{},"focused":true,"frame":{{"x":{},"y":20,"w":100,"h":30}},)"
          R"("path":"{}/AXTextField[0]","children":[]}})",
          *json::serialize(value), fieldX, window);
      if (has("element_path") && text("element_path").ends_with("AXTextField[0]"))
        return {200, "{\"tree\":" + field + "}"};
      return {200,
              fmt::format(
                  R"({{"tree":{{"role":"AXWindow","title":"{}","path":"{}","children":[{}]}}{}}})",
                  title, window, incomplete ? "" : field,
                  incomplete ? R"(,"incomplete":"deadline")" : "")};
    }
    if (path == "/ax/set-value" || path == "/input/type") {
      if (obeys) value = path == "/input/type" ? value + text("text") : text("value");
      if (retitles && path == "/ax/set-value") title = "*" + title;
      return {200, R"({"ok":true})"};
    }
    if (path == "/input/move") return {200, R"({"ok":true})"};
    if (path == "/input/click") {
      clicked = *json::serialize(body);
      return {200, R"({"ok":true})"};
    }
    if (path == "/displays")
      return {200,
              R"({"displays":[{"id":"1","width":2000,"height":1000,"scale":2,"primary":true}]})"};
    if (path == "/capture") {
      const auto size = std::min<std::int64_t>(*body.find("max_dim")->asInteger(), 4000);
      return {200, fmt::format(R"({{"png_base64":"{}","width":{},"height":{},"scale":{}}})",
                               std::string(static_cast<std::size_t>(size * size / 2), 'A'), size,
                               size / 2, static_cast<double>(size) / 2000)};
    }
    if (path == "/clipboard/get") return {412, R"({"needs":"accessibility"})"};
    if (path == "/photos/export") return {422, R"({"error":"x","message":"no such photo"})"};
    return {404, R"({"message":"not found"})"};
  }

  std::mutex mutex_;
  std::vector<std::string> asked;
  std::string clicked;
  std::string value = "old";
  std::string title = "W";
  bool obeys = true;
  bool retitles = false;
  bool incomplete = false;
  int windowX = 10;
  int fieldX = 10;
  bool running = true;
  std::string inFront;  ///< the JSON of another window, which has the keyboard
  /// What comes before the usual answers of a route.
  std::map<std::string, std::deque<test::FakeHelper::Answer>> scripted;
};

class McpServerTest : public testing::Test {
 protected:
  McpServerTest() {
    signal(SIGPIPE, SIG_IGN);
    int in[2];
    int out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) std::abort();
    toServer_.reset(in[1]);
    fromServer_.reset(out[0]);
    thread_ = std::thread([this, input = UniqueFd(in[0]), output = UniqueFd(out[1])] {
      Server server(input.get(), output.get(), "1.2", {folder_ / localSocketName},
                    {.lineBytes = 200'000, .calls = 16, .leave = leave});
      ok_ = server.run();
    });
    startHelper();
  }
  ~McpServerTest() override { end(); }

  void startHelper() {
    helper_ = std::make_unique<test::FakeHelper>(
        folder_.path(), [this](const std::string& path, const Value& body) {
          if (const auto hook = hooked()) hook(path, body);
          return desktop.answer(path, body);
        });
  }
  using Hook = std::function<void(const std::string& path, const Value& body)>;

  /// Runs before each of the companion's answers.
  void onRequest(Hook hook) {
    const std::lock_guard lock(hookMutex_);
    hook_ = std::move(hook);
  }
  Hook hooked() {
    const std::lock_guard lock(hookMutex_);
    return hook_;
  }
  void end() {
    toServer_.reset();
    if (thread_.joinable()) thread_.join();
  }
  void send(const std::string& line) {
    const std::string bytes = line + "\n";
    for (std::size_t sent = 0; sent < bytes.size();) {
      const ssize_t count = ::write(toServer_.get(), bytes.data() + sent, bytes.size() - sent);
      ASSERT_GT(count, 0);
      sent += static_cast<std::size_t>(count);
    }
  }
  /// The next message as it was written; empty at the end.
  std::string nextLine() {
    std::array<char, 65536> chunk;
    for (;;) {
      if (auto line = lines_.next()) return line->text;
      pollfd ready{fromServer_.get(), POLLIN, 0};
      if (::poll(&ready, 1, 30'000) != 1) return {};
      const ssize_t count = ::read(fromServer_.get(), chunk.data(), chunk.size());
      if (count <= 0) return {};
      lines_.append({chunk.data(), static_cast<std::size_t>(count)});
    }
  }
  Value next() { return json::parse(nextLine()).value_or(Value()); }

  void initialize(const char* version = "2025-11-25") {
    send(fmt::format(
        R"({{"jsonrpc":"2.0","id":"i","method":"initialize","params":{{"protocolVersion":"{}","capabilities":{{}}}}}})",
        version));
    const Value answer = next();
    agreed_ = *answer.find("result")->find("protocolVersion")->asString();
    send(R"({"jsonrpc":"2.0","method":"notifications/initialized"})");
  }
  static std::string callLine(int id, const char* tool, const std::string& arguments,
                              const std::string& more = "") {
    return fmt::format(
        R"({{"jsonrpc":"2.0","id":{},"method":"tools/call","params":{{"name":"{}","arguments":{}{}}}}})",
        id, tool, arguments, more);
  }
  /// The result of a call, which is answered next.
  Value call(const char* tool, const std::string& arguments = "{}") {
    send(callLine(++id_, tool, arguments));
    line_ = nextLine();
    const auto answer = json::parse(line_);
    const Value* result = answer ? answer->find("result") : nullptr;
    EXPECT_NE(result, nullptr) << tool << ' ' << line_.substr(0, 300);
    return result ? *result : Value();
  }
  static std::string text(const Value& result) {
    const Value* content = result.find("content");
    return content ? *content->asArray()->back().find("text")->asString() : "";
  }
  static std::string outcome(const Value& result) {
    const Value* structured = result.find("structuredContent");
    return structured ? *structured->find("outcome")->asString() : "";
  }

  Desktop desktop;
  std::chrono::milliseconds leave{30'000};
  std::mutex hookMutex_;
  Hook hook_;
  support::TemporaryDirectory folder_;
  UniqueFd toServer_;
  UniqueFd fromServer_;
  BoundedLines lines_{4 << 20};
  std::thread thread_;
  std::unique_ptr<test::FakeHelper> helper_;
  std::string agreed_;
  std::string line_;
  bool ok_ = false;
  int id_ = 100;
};

TEST_F(McpServerTest, AnswersBadLinesAndGoesOn) {
  const std::string meta = stateless;
  const struct {
    std::string line;
    int code;
  } cases[] = {
      {"{", -32700},
      {"\xff", -32700},
      {std::string(300'000, 'x'), -32600},
      {"[]", -32600},
      {"7", -32600},
      {R"({"jsonrpc":"1.0","id":1,"method":"ping"})", -32600},
      {R"({"jsonrpc":"2.0","id":1})", -32600},
      {R"({"jsonrpc":"2.0","id":null,"method":"ping"})", -32600},
      {R"({"jsonrpc":"2.0","id":{},"method":"ping"})", -32600},
      {R"({"jsonrpc":"2.0","id":1,"method":"ping","params":[1]})", -32602},
      // Before any handshake.
      {R"({"jsonrpc":"2.0","id":1,"method":"tools/list"})", -32602},
      {R"({"jsonrpc":"2.0","id":1,"method":"server/discover"})", -32602},
      {R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{}})", -32602},
      {R"({"jsonrpc":"2.0","id":1,"method":"tools/list","params":{"_meta":{"io.modelcontextprotocol/protocolVersion":"2026-07-28"}}})",
       -32602},
      {R"({"jsonrpc":"2.0","id":1,"method":"tools/list","params":{"_meta":{"io.modelcontextprotocol/protocolVersion":"1900-01-01"}}})",
       -32022},
      {R"({"jsonrpc":"2.0","id":1,"method":"ping","params":{)" + meta + "}}", -32601},
      {R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"nope",)" + meta + "}}",
       -32602},
      {R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"status","arguments":3,)" +
           meta + "}}",
       -32602},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.line.substr(0, 120));
    send(each.line);
    const Value answer = next();
    const Value* error = answer.find("error");
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->find("code")->asInteger(), each.code);
  }
  // Neither notifications nor answers are answered.
  send(R"({"jsonrpc":"2.0","method":"notifications/whatever"})");
  send(R"({"jsonrpc":"2.0","id":4,"result":{}})");
  send(R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":77}})");
  send(R"({"jsonrpc":"2.0","id":"last","method":"ping"})");
  EXPECT_EQ(*next().find("id")->asString(), "last");
  end();
  EXPECT_TRUE(ok_);
  EXPECT_EQ(nextLine(), "");
}

TEST_F(McpServerTest, SpeaksTheRevisionThatTheClientKnows) {
  const struct {
    const char* asked;
    const char* agreed;
    bool annotations, structured, batches;
  } cases[] = {{"2024-11-05", "2024-11-05", false, false, false},
               {"2025-03-26", "2025-03-26", true, false, true},
               {"2025-06-18", "2025-06-18", true, true, false},
               {"2025-11-25", "2025-11-25", true, true, false},
               {"2026-07-28", "2025-11-25", true, true, false},
               {"2099-01-01", "2025-11-25", true, true, false}};
  for (const auto& each : cases) {
    SCOPED_TRACE(each.asked);
    initialize(each.asked);
    EXPECT_EQ(agreed_, each.agreed);
    send(R"({"jsonrpc":"2.0","id":2,"method":"tools/list","params":{"cursor":null,"_meta":null}})");
    const Value list = next();
    const Value& tool = list.find("result")->find("tools")->asArray()->at(5);
    EXPECT_EQ(tool.find("annotations") != nullptr, each.annotations);
    EXPECT_EQ(tool.find("outputSchema") != nullptr, each.structured);
    EXPECT_EQ(tool.find("title") != nullptr, each.structured);
    EXPECT_EQ(list.find("result")->find("resultType"), nullptr);
    EXPECT_EQ(call("list_windows").find("structuredContent") != nullptr, each.structured);
    send(
        R"([{"jsonrpc":"2.0","id":3,"method":"ping"},{"jsonrpc":"2.0","method":"notifications/x"},{},)" +
        callLine(4, "list_windows", "{}") + "]");
    const Value batch = next();
    ASSERT_EQ(batch.asArray() != nullptr, each.batches);
    if (each.batches) {
      std::set<std::string> ids;
      for (const Value& answer : *batch.asArray())
        ids.insert(json::serialize(*answer.find("id")).value());
      EXPECT_EQ(ids, (std::set<std::string>{"3", "4", "null"}));
    }
  }
  send(R"({"jsonrpc":"2.0","id":5,"method":"server/discover","params":{)" + std::string(stateless) +
       "}}");
  const Value discovered = next();
  const Value* result = discovered.find("result");
  EXPECT_EQ(*json::serialize(*result->find("supportedVersions")), R"(["2026-07-28"])");
  send(callLine(6, "list_windows", "{}", "," + std::string(stateless)));
  const Value answer = next();
  EXPECT_EQ(*answer.find("result")->find("resultType")->asString(), "complete");
  EXPECT_NE(answer.find("result")->find("_meta"), nullptr);
  send(R"({"jsonrpc":"2.0","id":7,"method":"subscriptions/listen","params":{)" +
       std::string(stateless) + R"(,"notifications":{"toolsListChanged":true}}})");
  EXPECT_EQ(*next().find("method")->asString(), "notifications/subscriptions/acknowledged");
}

TEST_F(McpServerTest, AnswersAndCancelsWhileACallHangs) {
  std::latch hanging(1);
  std::latch released(1);
  onRequest([&](const std::string& path, const Value&) {
    if (path != "/displays") return;
    hanging.count_down();
    released.wait();
  });
  initialize();
  send(callLine(1, "list_displays", "{}"));
  hanging.wait();
  send(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"list_windows"}})");
  EXPECT_TRUE(nextLine().contains("runs already"));
  send(R"({"jsonrpc":"2.0","id":2,"method":"ping"})");
  EXPECT_EQ(next().find("id")->asInteger(), 2);
  call("list_windows");
  send(R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":1}})");
  // Its id is free again, and nothing comes for the first call.
  onRequest(nullptr);
  send(callLine(1, "list_windows", "{}"));
  const Value answer = next();
  EXPECT_TRUE(text(*answer.find("result")).starts_with("5 \"W\"")) << text(*answer.find("result"));
  released.count_down();
  helper_.reset();
  end();
  EXPECT_EQ(nextLine(), "");
}

TEST_F(McpServerTest, RefusesWhatIsTooMuchInABatchAlone) {
  std::latch released(1);
  onRequest([&](const std::string& path, const Value&) {
    if (path == "/displays") released.wait();
  });
  initialize("2025-03-26");
  send(callLine(1, "list_displays", "{}"));
  std::string batch = "[" + callLine(2, "list_displays", "null");
  for (int id = 3; id <= 18; ++id) batch += "," + callLine(id, "list_displays", "{}");
  send(batch + "]");
  send(R"({"jsonrpc":"2.0","id":"p","method":"ping","params":null})");
  EXPECT_EQ(*next().find("id")->asString(), "p");
  released.count_down();
  std::size_t refused = 0;
  for (int line = 0; line < 2; ++line) {
    const Value answers = next();
    if (!answers.asArray()) continue;
    EXPECT_EQ(answers.asArray()->size(), 17);
    for (const Value& answer : *answers.asArray())
      refused += text(*answer.find("result")).starts_with("Too many calls");
  }
  EXPECT_EQ(refused, 2);
}

TEST_F(McpServerTest, ActsInOrderAndReportsProgress) {
  initialize();
  const std::string longText = std::string(150, 'a') + " " + std::string(150, 'b');
  send(callLine(1, "type_text", "{\"text\":\"" + longText + "\"}",
                R"(,"_meta":{"progressToken":"p"})"));
  for (int i = 2; i <= 6; ++i)
    send(callLine(i, "type_text", fmt::format(R"({{"text":"[{}]"}})", i)));
  std::vector<std::int64_t> ids;
  std::vector<std::string> progress;
  while (ids.size() < 6) {
    const Value message = next();
    ASSERT_FALSE(message.isNull());
    if (message.find("method"))
      progress.push_back(json::serialize(*message.find("params")).value());
    else
      ids.push_back(*message.find("id")->asInteger());
  }
  EXPECT_EQ(desktop.value, "old" + longText + "[2][3][4][5][6]");
  EXPECT_EQ(ids, (std::vector<std::int64_t>{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(progress,
            (std::vector<std::string>{
                R"({"progressToken":"p","progress":151,"total":301,"message":"typing"})"}));
}

TEST_F(McpServerTest, SaysWhatWasConfirmed) {
  initialize();
  EXPECT_EQ(text(call("desktop_snapshot")),
            "window \"W\" [e1]\n textfield =\"old\" focused 10,20 100x30 [e2]\n");
  EXPECT_EQ(outcome(call("set_value", R"({"element":"e2","value":"new"})")), "confirmed");
  // As an editor does once its document differs from the file.
  desktop.retitles = true;
  EXPECT_EQ(outcome(call("set_value", R"({"element":"e2","value":"newer"})")), "confirmed");
  desktop.retitles = false;
  EXPECT_EQ(outcome(call("type_text", R"({"text":"er"})")), "confirmed");
  EXPECT_EQ(outcome(call("control_window", R"({"window_id":5,"action":"move","x":70,"y":20})")),
            "confirmed");
  desktop.obeys = false;
  EXPECT_EQ(outcome(call("set_value", R"({"element":"e2","value":"x"})")), "unchanged");
  EXPECT_EQ(outcome(call("type_text", R"({"text":"x"})")), "unchanged");
  EXPECT_EQ(outcome(call("control_window", R"({"window_id":5,"action":"move","x":0,"y":20})")),
            "unchanged");
  EXPECT_EQ(outcome(call("click", R"({"x":1,"y":2})")), "unchanged");
  desktop.incomplete = true;
  EXPECT_EQ(outcome(call("click", R"({"x":1,"y":2})")), "not_verifiable");
  EXPECT_TRUE(text(call("desktop_snapshot")).contains("Incomplete: "));
  desktop.incomplete = false;
  desktop.value = "secret";
  onRequest([this](const std::string& path, const Value&) {
    if (path == "/input/click") desktop.value = "after";
    if (path == "/input/move") desktop.title = "other";
  });
  const Value clicked = call("click", R"({"element":"e2"})");
  EXPECT_EQ(text(clicked), "confirmed: textfield now has the value \"after\"");
  EXPECT_EQ(desktop.clicked, R"({"x":60,"y":35,"count":1})");
  // A window's title stands in the path of all its elements, which are the same all the same.
  EXPECT_EQ(text(call("move_pointer", R"({"x":1,"y":2})")),
            "confirmed: window title is now \"other\"");
}

TEST_F(McpServerTest, SaysWhatToDoNext) {
  initialize();
  const struct {
    const char* tool;
    const char* arguments;
    const char* says;
  } cases[] = {
      {"get_clipboard", "{}", "veskoctl consent grant accessibility"},
      {"desktop_snapshot", R"({"element":"AXApplication[a]/gone"})", "Take a new desktop_snapshot"},
      {"desktop_snapshot", R"({"element":"e9"})", "never given"},
      {"desktop_snapshot", R"({"max_nodes":2001})",
       "max_nodes: expected an integer from 1 to 2000"},
      {"quit_application", "{}", "exactly one of bundle_id and name"},
      {"find_elements", "{}", "does not offer that yet"},
      {"get_photo", R"({"uuid":"x"})", "no such photo"},
      {"click", R"({"x":1})", "Give both x and y"},
      {"click", R"({"x":1,"y":1,"map":"zz"})", "that capture_screen gave"},
      {"click", R"({"x":500,"y":1,"map":"0,0,1,100,100"})", "outside of the image"},
      {"click", R"({"x":50,"y":1,"map":"0,0,1,100,100,5"})", "has moved"},
      {"click", R"({"x":50,"y":1,"map":"0,0,1,100,100,6"})", "not on the screen"},
      {"control_window", R"({"window_id":5,"action":"resize","w":3})", "needs w and h"},
      {"press_key", R"({"keys":"+ "})", ""},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(std::string(each.tool) + each.arguments);
    const Value result = call(each.tool, each.arguments);
    EXPECT_EQ(result.find("isError")->asBool(), true);
    EXPECT_TRUE(text(result).contains(each.says)) << text(result);
  }
  EXPECT_EQ(text(call("launch_application", R"({"name":"x"})")),
            "application launch failed: the program \"foo\" was not found");
  // The helper goes, and another comes.
  helper_.reset();
  EXPECT_TRUE(text(call("list_windows")).contains("Ask the user to start it"));
  startHelper();
  EXPECT_EQ(call("list_windows").find("isError")->asBool(), false);
}

TEST_F(McpServerTest, WaitsForWhatIsNotKnownYet) {
  initialize();
  const test::FakeHelper::Answer notRunning{400, R"({"message":"application not found"})"};
  const test::FakeHelper::Answer cut{200, R"({"elements":[],"incomplete":"deadline"})"};
  const test::FakeHelper::Answer one{200, R"({"elements":[{"role":"AXButton","path":"p"}]})"};
  const auto wait = [&](const char* arguments, std::deque<test::FakeHelper::Answer> answers) {
    desktop.scripted["/ax/find"] = std::move(answers);
    const Value result = call("wait_for_element", arguments);
    EXPECT_TRUE(desktop.scripted["/ax/find"].empty());
    return result.find("isError")->asBool() == false;
  };
  EXPECT_TRUE(wait(R"({"title":"x"})", {notRunning,
                                        {400, R"({"message":"the application does not answer"})"},
                                        {400, R"({"message":"read failed with AX error -25211"})"},
                                        cut,
                                        one}));
  EXPECT_TRUE(wait(R"({"title":"x","gone":true})", {one, cut, notRunning}));
  EXPECT_FALSE(wait(R"({"title":"x"})", {{400, R"({"message":"no criteria"})"}}));
  desktop.scripted["/ax/find"] = {cut};
  EXPECT_TRUE(text(call("find_elements")).contains("stopped answering"));
}

TEST_F(McpServerTest, KnowsAnApplicationByItsOwnWindows) {
  initialize();
  EXPECT_EQ(outcome(call("activate_application", R"({"name":"A"})")), "confirmed");
  desktop.inFront =
      R"({"bundle_id":"b","title":"Other","window_id":6,"frame":{"x":0,"y":0,"w":900,"h":500},"focused":true})";
  EXPECT_TRUE(text(call("activate_application", R"({"name":"A"})"))
                  .starts_with("not_verifiable: another window is in front: 6 \"Other\""));
  desktop.inFront.clear();
  onRequest([this](const std::string& path, const Value&) {
    if (path == "/app/quit")
      desktop.inFront = R"({"bundle_id":"a","title":"Save changes?","window_id":7,"focused":true})";
  });
  const std::string asking = text(call("quit_application", R"({"name":"A"})"));
  EXPECT_TRUE(asking.starts_with("not_verifiable")) << asking;
  EXPECT_TRUE(asking.contains("window opened: 7 \"Save changes?\"")) << asking;
  onRequest([this](const std::string& path, const Value&) {
    if (path == "/app/quit") desktop.running = false;
  });
  EXPECT_EQ(text(call("quit_application", R"({"bundle_id":"a"})")),
            "confirmed: the application has ended");
}

TEST_F(McpServerTest, ClicksAnElementOnlyWhereItIsReached) {
  initialize();
  call("desktop_snapshot");
  const std::string covering =
      R"({"bundle_id":"b","title":"Other","window_id":6,"frame":{"x":0,"y":0,"w":900,"h":500},"focused":true})";
  desktop.inFront = covering;
  EXPECT_TRUE(text(call("click", R"({"element":"e2"})")).contains("lies over the element: 6"));
  onRequest([this](const std::string& path, const Value&) {
    if (path == "/window/focus") desktop.inFront.clear();
  });
  call("click", R"({"element":"e2"})");
  EXPECT_EQ(desktop.clicked, R"({"x":60,"y":35,"count":1})");
  desktop.clicked.clear();
  desktop.fieldX = 5000;
  EXPECT_TRUE(text(call("click", R"({"element":"e2"})")).contains("5050,35, lies on no display"));
  EXPECT_EQ(desktop.clicked, "");
}

TEST_F(McpServerTest, CapturesFitAndLeadBackToTheScreen) {
  initialize();
  const Value result = call("capture_screen", R"({"max_dim":4000})");
  EXPECT_LT(line_.size(), maxResultBytes);
  EXPECT_GT(line_.size(), maxResultBytes / 2);
  EXPECT_TRUE(text(result).contains("reduced")) << text(result);
  const std::string map = *result.find("structuredContent")->find("map")->asString();
  const auto width = *result.find("structuredContent")->find("width")->asInteger();
  call("click", fmt::format(R"({{"x":{},"y":0,"map":"{}"}})", width / 2, map));
  const auto clicked = json::parse(desktop.clicked);
  EXPECT_NEAR(*clicked->find("x")->asDouble(), 1000, 2);

  const Value window = call("capture_screen", R"({"window_id":5,"max_dim":600})");
  const std::string ofWindow = *window.find("structuredContent")->find("map")->asString();
  EXPECT_EQ(ofWindow, "10,20,0.3,600,300,5");
  const Value region =
      call("capture_screen", R"({"region":{"x":100,"y":50,"w":10,"h":5},"max_dim":600})");
  EXPECT_EQ(*region.find("structuredContent")->find("map")->asString(), "100,50,0.3,600,300");
}

TEST_F(McpServerTest, EndsWithItsClient) {
  std::latch hanging(1);
  std::latch released(1);
  onRequest([&](const std::string& path, const Value&) {
    if (path != "/input/type") return;
    hanging.count_down();
    released.wait();
  });
  initialize();
  send(callLine(1, "type_text", R"({"text":"a"})"));
  send(callLine(2, "type_text", R"({"text":"b"})"));
  hanging.wait();
  // Both ends go, as when the assistant crashes: what waits is not done any more.
  fromServer_.reset();
  end();
  released.count_down();
  EXPECT_FALSE(ok_);
  helper_.reset();
  EXPECT_EQ(std::ranges::count(desktop.asked, "/input/type"), 1);
}

class McpServerEndTest : public testing::Test {
 protected:
  McpServerEndTest() {
    signal(SIGPIPE, SIG_IGN);
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) std::abort();
    in_.reset(ends[0]);
    toServer_.reset(ends[1]);
  }
  /// Whether the server ended in peace.
  std::future<bool> serve(int out) {
    return std::async(std::launch::async, [this, out] {
      return Server(in_.get(), out, "1", {}, {.stall = std::chrono::milliseconds(50)}).run();
    });
  }

  UniqueFd in_;
  UniqueFd toServer_;
};

TEST_F(McpServerEndTest, TheReaderOfASocketGoesWhileTheInputStays) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const UniqueFd out(ends[0]);
  auto served = serve(out.get());
  ::close(ends[1]);
  EXPECT_FALSE(served.get());
}

TEST_F(McpServerEndTest, TheClientLeavesWithoutReading) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const UniqueFd unread(ends[0]);
  const UniqueFd out(ends[1]);
  std::string requests;
  for (int id = 0; id < 20; ++id)
    requests += fmt::format(R"({{"jsonrpc":"2.0","id":{},"method":"tools/list","params":{{{}}}}})"
                            "\n",
                            id, stateless);
  ASSERT_EQ(::write(toServer_.get(), requests.data(), requests.size()), requests.size());
  auto served = serve(out.get());
  toServer_.reset();
  EXPECT_FALSE(served.get());
}

}  // namespace
}  // namespace vesko::mcp
