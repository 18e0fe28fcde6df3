// veskoctl as a process, before a real helper and a scripted control server.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <span>

#include "base/base64.h"
#include "base/file.h"
#include "base/unique_fd.h"
#include "helper/child_process.h"
#include "helper/tls_server.h"
#include "support/temporary_directory.h"

namespace vesko {
namespace {

const std::string image = std::string("\x89PNG\r\n\x1a\n\0\xFF", 10) + std::string(100000, 'p');

std::string captureAnswer() {
  std::string encoded;
  appendBase64(encoded, std::as_bytes(std::span(image)));
  return "{\"png_base64\":\"" + encoded + "\",\"width\":1600,\"height\":1000,\"scale\":1.25}";
}

/// A companion whose answers depend on the path alone.
void answerByPath(TlsServer::Connection& connection) {
  const std::string request = connection.readRequest();
  const auto is = [&](std::string_view line) { return request.starts_with(line); };
  if (is("GET /status "))
    return connection.write(httpAnswer(
        200, R"({"screen_recording":true,"accessibility":false,"messages_automation":"denied"})"));
  if (is("POST /displays "))
    return connection.write(httpAnswer(
        200, R"({"displays":[{"id":"7","width":1280,"height":800,"scale":2.0,"primary":true},)"
             R"({"id":"8","width":640,"height":480,"scale":1.5,"primary":false}]})"));
  if (is("POST /capture ")) return connection.write(httpAnswer(200, captureAnswer()));
  if (is("POST /photos/export ") && request.ends_with(R"({"uuid":"A","maxBytes":100})"))
    return connection.write(httpAnswer(
        200, R"({"dataBase64":"YWJj","mimeType":"image/png","filename":"a.png","width":3,)"
             R"("height":4,"transcoded":false})"));
  if (is("POST /photos/export "))
    return connection.write(httpAnswer(
        403, R"({"error":"photos_permission_denied","message":"Photos access is not granted"})"));
  if (is("POST /clipboard/get "))
    return connection.write(httpAnswer(200, "{\"text\":\"gr\xC3\xBC\xC3\x9F\\n\"}"));
  if (is("POST /input/") || is("POST /clipboard/set "))
    return connection.write(httpAnswer(200, R"({"ok":true})"));
  if (is("POST /denied ")) return connection.write(httpAnswer(412, R"({"needs":"accessibility"})"));
  if (is("POST /gone "))
    return connection.write(httpAnswer(
        200, R"({"ok":false,"error":{"code":"ax_element_gone","message":"element is gone"}})"));
  if (is("POST /bad ")) return connection.write(httpAnswer(400, R"({"message":"bad button"})"));
  // As deep as a snapshot's elements can lie one in the other.
  if (is("POST /deep "))
    return connection.write(httpAnswer(200, std::string(4100, '[') + std::string(4100, ']')));
  if (is("POST /silent ")) return connection.waitForPeer();
  if (is("POST /cut ")) return connection.write("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{");
  connection.write(httpAnswer(404, R"({"message":"not found"})"));
}

std::string bodyOf(const std::string& request) {
  return request.substr(request.find("\r\n\r\n") + 4);
}

class VeskoctlTest : public testing::Test {
 protected:
  VeskoctlTest() { signal(SIGPIPE, SIG_IGN); }

  CommandResult run(const std::vector<std::string>& words, std::string_view input = {}) {
    return runVeskoctlProcess(words, {{"VESKOKIT_STATE_DIR", state().native()}}, input);
  }
  const std::filesystem::path& state() const { return scratch_.path(); }

  support::TemporaryDirectory scratch_;
};

class VeskoctlServedTest : public VeskoctlTest {
 protected:
  VeskoctlServedTest() : helper_({.stateDirectory = state()}) {
    helper_.waitUntilServing();
    helper_.send(server_.announcement());
    helper_.waitFor("control server announced");
  }

  TlsServer server_{answerByPath};
  HelperProcess helper_;
};

TEST_F(VeskoctlServedTest, ExitCodesAndMessages) {
  using Words = std::vector<std::string>;
  const struct {
    Words words;
    int exit;
    const char* out;
    const char* err;
  } cases[] = {
      {{"status"}, 0, "  accessibility: no\n", ""},
      {{"displays"}, 0, "7  1280x800  scale 2  main\n8  640x480  scale 1.5\n", ""},
      {{"move", "1", "2"}, 0, "", ""},
      {{"move", "1", "2", "--json"}, 0, "{\"ok\":true}\n", ""},
      {{"call", "POST", "/bad"}, 1, "", "veskoctl: bad button\n"},
      {{"call", "POST", "/bad", "--json"},
       1,
       R"({"ok":false,"error":{"code":"request_failed","message":"bad button","status":400,)"
       R"("body":{"message":"bad button"}}})",
       "bad button"},
      {{"call", "GET", "/nowhere"}, 1, "", "not found"},
      {{"call", "POST", "/gone"}, 1, "", "element is gone"},
      {{"call", "POST", "/deep"}, 0, "[[[[", ""},
      {{"call", "POST", "/cut"}, 1, "", "before its answer was complete"},
      {{"call", "POST", "/silent", "--timeout", "0.05"}, 1, "", "did not answer in time"},
      {{"call", "POST", "/denied"},
       4,
       "",
       "permission missing: accessibility; grant it with: veskoctl consent grant accessibility\n"},
      {{"call", "POST", "/denied", "--json"}, 4, "\"needs\":\"accessibility\"", "permission"},
      // Granted after the companion has started: granting it again would lead nowhere.
      {{"consent", "grant", "accessibility"}, 0, "", ""},
      {{"call", "POST", "/denied"}, 4, "", "counts once the companion is started again"},
      {{"call", "POST", "/a", "{"}, 2, "", "the body is not JSON"},
      {{"call", "post", "/a"}, 1, "", "capital letters"},
      {{}, 2, "", "no command"},
      {{"--json"}, 2, "\"code\":\"usage\"", "no command"},
      {{"clik"}, 2, "", "did you mean click?"},
      {{"clik", "--json"}, 2, "{\"ok\":false,\"error\":{\"code\":\"usage\"", "did you mean click?"},
      {{"click", "1"}, 2, "", "both coordinates or none"},
      {{"click", "--count", "two"}, 2, "", "whole number"},
      {{"move", "a", "2"}, 2, "", "a is not a number"},
      {{"move", "inf", "2"}, 2, "", "inf is not a number"},
      {{"hotkey", "ctrl+"}, 2, "", "ends in a key"},
      {{"status", "--timeout", "0"}, 2, "", "--timeout takes"},
      {{"capture", "a.png", "--region", "1,2,3"}, 2, "", "four numbers"},
      {{"capture", "a.png", "--window", "1", "--display", "2"}, 2, "", "--window goes without"},
      {{"capture", "-", "--json"}, 2, "", "both write to standard output"},
      {{"capture", "/no/such/folder/a.png"}, 1, "", "cannot write /no/such/folder/a.png"},
      {{"photo", "A", "-", "--max-bytes", "100"}, 0, "abc", ""},
      {{"photo", "A", "/no/such/folder/a.png", "--max-bytes", "100"}, 1, "", "cannot write"},
      {{"photo", "A", "/dev/null", "--max-bytes", "100"}, 0, "/dev/null: image/png, 3x4\n", ""},
      {{"photo", "A", "/dev/null"}, 1, "", "Photos access is not granted"},
      {{"photo", "A", "a.png", "--max-bytes", "much"}, 2, "", "whole number"},
      {{"help", "clik"}, 2, "", "no such command"},
      {{"help", "click"}, 0, "usage: veskoctl click [OPTIONS] [X Y]", ""},
      {{"--help"}, 0, "exit codes", ""},
      {{"--version"}, 0, "veskoctl ", ""},
      {{"status", "--socket", "/no/such/socket"}, 3, "", "no helper answers at /no/such/socket"},
  };
  for (const auto& item : cases) {
    std::string line;
    for (const auto& word : item.words) line += word + " ";
    SCOPED_TRACE(line);
    const CommandResult result = run(item.words);
    EXPECT_EQ(result.exit, item.exit);
    EXPECT_NE(result.out.find(item.out), std::string::npos) << result.out;
    EXPECT_NE(result.err.find(item.err), std::string::npos) << result.err;
    EXPECT_EQ(result.err.empty(), item.exit == 0) << result.err;
  }
}

TEST_F(VeskoctlServedTest, TurnsWordsIntoRequests) {
  using Words = std::vector<std::string>;
  const struct {
    Words words;
    const char* path;
    const char* body;
    const char* input = "";
  } cases[] = {
      {{"move", "-1.5", "+2"}, "/input/move", R"({"x":-1.5,"y":2})"},
      {{"click"}, "/input/click", "{}"},
      {{"click", "3", "4", "--button", "right", "--count=2"},
       "/input/click",
       R"({"x":3,"y":4,"button":"right","count":2})"},
      {{"drag", "1", "2", "3", "4"}, "/input/drag", R"({"from_x":1,"from_y":2,"to_x":3,"to_y":4})"},
      {{"scroll", "0", "-120"}, "/input/scroll", R"({"dx":0,"dy":-120})"},
      {{"type", "--", "--h\xC3\xA9"},
       "/input/type",
       "{\"text\":\"--h\xC3\xA9\",\"method\":\"keystroke\"}"},
      {{"type", "-", "--paste"},
       "/input/type",
       R"({"text":"two\nlines\n","method":"paste"})",
       "two\nlines\n"},
      {{"key", "F5", "--modifier", "alt", "--modifier", "Shift"},
       "/input/key",
       R"({"key":"F5","modifiers":["option","shift"]})"},
      {{"key", "-"}, "/input/key", R"({"key":"-"})"},
      {{"hotkey", "ctrl+shift++"}, "/input/hotkey", R"({"combo":["control","shift","+"]})"},
      {{"hotkey", "command", "s"}, "/input/hotkey", R"({"combo":["command","s"]})"},
      {{"clipboard", "set", "a"}, "/clipboard/set", R"({"text":"a"})"},
      {{"clipboard", "set"}, "/clipboard/set", R"({"text":"from input"})", "from input"},
      {{"capture", "-"}, "/capture", R"({"target":"display"})"},
      {{"capture", "-", "--region", "1,2.5,3,4", "--display", "7", "--max-dim", "99"},
       "/capture",
       R"({"target":"region","display_id":"7","max_dim":99,"rect":{"x":1,"y":2.5,"w":3,"h":4}})"},
      {{"capture", "-", "--window", "12"}, "/capture", R"({"target":"window","window_id":12})"},
      {{"call", "POST", "/input/x", "-"}, "/input/x", R"({"a":[1,null]})", " {\"a\": [1, null]}\n"},
  };
  std::size_t count = 0;
  for (const auto& item : cases) {
    SCOPED_TRACE(item.path + std::string(" ") + item.body);
    const CommandResult result = run(item.words, item.input);
    EXPECT_EQ(result.exit, 0) << result.err;
    server_.waitForConnections(++count);
    const std::string request = server_.requests().back();
    EXPECT_TRUE(request.starts_with(std::string("POST ") + item.path + " ")) << request;
    EXPECT_EQ(bodyOf(request), item.body);
  }
}

TEST_F(VeskoctlServedTest, CapturesIntoFilesAndStandardOutput) {
  const auto file = state() / "out.png";
  ASSERT_TRUE(replaceFile(file, "old", 0644));
  const CommandResult saved = run({"capture", file.native()});
  EXPECT_EQ(saved.exit, 0) << saved.err;
  EXPECT_EQ(saved.out, file.native() + ": 1600x1000\n");
  EXPECT_TRUE(*readFile(file, 1 << 20) == image);
  struct stat info{};
  ASSERT_EQ(::stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  const CommandResult described = run({"capture", file.native(), "--json"});
  EXPECT_EQ(described.out,
            "{\"file\":\"" + file.native() + "\",\"width\":1600,\"height\":1000,\"scale\":1.25}\n");
  EXPECT_TRUE(run({"capture", "-"}).out == image);

  const auto pipe = state() / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const UniqueFd both(::open(pipe.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  ASSERT_GE(::fcntl(both.get(), F_SETPIPE_SZ, 1 << 20), 1 << 20) << "the picture must fit";
  EXPECT_EQ(run({"capture", pipe.native()}).exit, 0);
  EXPECT_TRUE(std::filesystem::is_fifo(pipe)) << "was replaced by a file";
  std::string written(image.size() + 1, '\0');
  EXPECT_EQ(::read(both.get(), written.data(), written.size()), std::ssize(image));
}

TEST_F(VeskoctlServedTest, ShowsTheClipboardByteForByte) {
  EXPECT_EQ(run({"clipboard", "get"}).out, "gr\xC3\xBC\xC3\x9F\n");
  EXPECT_EQ(run({"clipboard", "get", "--json"}).out, "{\"text\":\"gr\xC3\xBC\xC3\x9F\\n\"}\n");
}

TEST_F(VeskoctlTest, TellsWhoIsNotThere) {
  const CommandResult nobody = run({"status"});
  EXPECT_EQ(nobody.exit, 3);
  EXPECT_NE(nobody.err.find("no helper answers at " + (state() / "veskoctl.sock").native()),
            std::string::npos)
      << nobody.err;
  EXPECT_NE(nobody.err.find("is Vesko Companion running?"), std::string::npos) << nobody.err;
  HelperProcess helper({.stateDirectory = state()});
  helper.waitUntilServing();
  const CommandResult alone = run({"status"});
  EXPECT_EQ(alone.exit, 3);
  EXPECT_NE(alone.out.find("process " + std::to_string(helper.pid())), std::string::npos);
  EXPECT_NE(alone.err.find("has not announced its control server"), std::string::npos);
  {
    const TlsServer gone(answerByPath);
    helper.send(gone.announcement());
    helper.waitFor("control server announced");
  }
  const CommandResult refused = run({"displays", "--json"});
  EXPECT_EQ(refused.exit, 3);
  EXPECT_NE(refused.out.find("\"code\":\"unreachable\""), std::string::npos) << refused.out;
}

TEST_F(VeskoctlTest, LooksForTheHelperInBothStateDirectories) {
  // Inside its bundle the command knows which of the two is meant; a copy elsewhere does not.
  const auto copy = state() / "veskoctl";
  std::filesystem::copy_file(veskoctlPath(), copy);
  for (const char* folder : {"VeskoKit", "VeskoKit-Dev"}) {
    SCOPED_TRACE(folder);
    const auto directory = state() / "Library/Application Support" / folder;
    std::filesystem::create_directories(directory);
    HelperProcess helper({.stateDirectory = directory});
    helper.waitUntilServing();
    const CommandResult result =
        runVeskoctlProcess({"status"}, {{"HOME", state().native()}}, {}, copy);
    EXPECT_NE(result.out.find("process " + std::to_string(helper.pid())), std::string::npos)
        << result.out << result.err;
  }
  const CommandResult nobody =
      runVeskoctlProcess({"status"}, {{"HOME", "/no/such/home"}}, {}, copy);
  EXPECT_EQ(nobody.exit, 3);
  EXPECT_NE(nobody.err.find("/VeskoKit/veskoctl.sock"), std::string::npos) << nobody.err;
  EXPECT_NE(nobody.err.find("/VeskoKit-Dev/veskoctl.sock"), std::string::npos) << nobody.err;
}

TEST_F(VeskoctlTest, EditsConsentsWithoutAHelper) {
  const auto list = [&] { return run({"consent", "list", "--json"}).out; };
  EXPECT_NE(list().find(R"("accessibility":"not_determined")"), std::string::npos) << list();
  EXPECT_EQ(run({"consent", "grant", "accessibility", "screen_recording"}).exit, 0);
  EXPECT_NE(list().find(R"("accessibility":"granted","screen_recording":"granted")"),
            std::string::npos);
  EXPECT_EQ(run({"consent", "revoke", "accessibility"}).exit, 0);
  EXPECT_EQ(run({"consent", "reset", "screen_recording"}).exit, 0);
  EXPECT_NE(list().find(R"("accessibility":"denied","screen_recording":"not_determined")"),
            std::string::npos);
  // One wrong name and nothing changes.
  const CommandResult slip = run({"consent", "grant", "photos", "fotos"});
  EXPECT_EQ(slip.exit, 2);
  EXPECT_NE(slip.err.find("unknown consent fotos; there are: accessibility"), std::string::npos);
  EXPECT_NE(list().find(R"("photos":"not_determined")"), std::string::npos);

  ASSERT_TRUE(replaceFile(state() / "consents.plist", "damaged", 0600));
  const CommandResult damaged = run({"consent", "list"});
  EXPECT_EQ(damaged.exit, 1);
  EXPECT_FALSE(damaged.err.empty());
}

}  // namespace
}  // namespace vesko
