// The daemon's output, cut into arbitrary reads: the lines and what they change must not depend on
// the cuts, and social payloads must never reach the log.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/main_thread.h"
#include "base/utf8.h"
#include "fakes/virtual_main_loop.h"
#include "state/control_lines.h"
#include "state/line_splitter.h"
#include "support/temporary_directory.h"

namespace vesko {
namespace {

class NoDaemon : public DaemonChannel {
 public:
  bool daemonRunning() const override { return false; }
  std::expected<void, Error> sendLine(std::string_view) override {
    return std::unexpected(Error{Failure::unavailable, {}});
  }
};

class Calls : public DaemonRequests {
 public:
  using DaemonRequests::DaemonRequests;
  void requestFolder(const std::string& path) override { text += "folder " + path + "\n"; }
  void withdrawFolder(const std::string& path) override { text += "withdraw " + path + "\n"; }
  void socialMessage(std::string_view message) override { text += message; }
  void confirmPairing(const std::string& id) override { text += "confirm " + id + "\n"; }
  std::string text;
};

struct Application {
  explicit Application(const std::filesystem::path& logs) : log(logs) {}

  void read(std::string_view chunk) {
    splitter.append(
        chunk,
        [this](std::string_view line) {
          assertMainThread();
          lines.handleDaemonLine(line);
          return true;
        },
        [] {});
  }

  fakes::VirtualMainLoop loop;
  AppLog log;
  UserDefaults defaults{"/nonexistent/defaults.plist"};
  AppState state{defaults};
  NoDaemon channel;
  ImportStatus imports{state, log};
  Calls requests{log};
  ControlLines lines{state, log, loop, channel, imports, requests};
  LineSplitter splitter;
};

}  // namespace
}  // namespace vesko

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vesko;
  if (size < 2) return 0;
  static const support::TemporaryDirectory logs;
  const std::size_t step = 1 + data[0] % 31;
  const std::string_view stream(reinterpret_cast<const char*>(data) + 1, size - 1);

  Application whole(logs / "whole");
  whole.read(stream);
  Application cut(logs / "cut");
  for (std::size_t at = 0; at < stream.size(); at += step) cut.read(stream.substr(at, step));

  if (*whole.state.status != *cut.state.status) std::abort();
  if (whole.requests.text != cut.requests.text) std::abort();
  if (whole.state.detectedAssistantSources->size() != cut.state.detectedAssistantSources->size())
    std::abort();
  if (support::contentOf(logs / "whole/app.log").find("[veskokit:social] {\"") != std::string::npos)
    std::abort();
  std::filesystem::remove(logs / "whole/app.log");
  std::filesystem::remove(logs / "cut/app.log");
  return 0;
}
