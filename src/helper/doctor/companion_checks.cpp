#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "helper/command_session.h"
#include "helper/doctor/place.h"
#include "helper/local_client.h"

namespace vesko {
namespace {

namespace fs = std::filesystem;
using json::Object;

// A route of the companion may take this long before the check that asks for it is ended anyway.
constexpr std::chrono::seconds routeTime{30};

constexpr const char* restart = "End the companion and start it again.";

std::string startAdvice(const DoctorPlace& place) {
  if (!place.bundle) return "Start Vesko Companion.";
  return fmt::format("Start it: \"{}\"",
                     (place.bundle->path() / "Contents/MacOS/VeskoCompanion").native());
}

std::vector<Finding> bundle(const DoctorPlace& place) {
  Finding finding{.id = "bundle"};
  if (!place.bundle) {
    finding.status = CheckStatus::warning;
    finding.summary = "this veskoctl does not lie in an application bundle";
    finding.advice = "Use the one in Vesko Companion.app/Contents/Resources.";
    return {finding};
  }
  std::string lacking;
  std::vector<std::string> parts{"MacOS/VeskoCompanion", "Resources/veskokit-daemon"};
  parts.insert(parts.end(), place.system.bundleParts.begin(), place.system.bundleParts.end());
  for (const std::string& name : parts) {
    if (::access((place.bundle->path() / "Contents" / name).c_str(), X_OK) != 0)
      lacking += (lacking.empty() ? "" : ", ") + name;
  }
  if (!place.bundle->identifier())
    lacking += (lacking.empty() ? "" : ", ") + std::string("a readable Info.plist");
  finding.status = lacking.empty() ? CheckStatus::ok : CheckStatus::missing;
  finding.summary = lacking.empty() ? "complete: " + place.bundle->path().native()
                                    : place.bundle->path().native() + " lacks " + lacking;
  if (!lacking.empty()) finding.advice = "Install Vesko Companion anew.";
  return {finding};
}

std::vector<Finding> companion(const DoctorPlace& place) {
  Finding finding{.id = "companion"};
  if (!place.system.companion) {
    finding.summary = "cannot be looked for on this system";
    return {finding};
  }
  const auto process = place.companion();
  if (!process) {
    finding.status = CheckStatus::missing;
    finding.summary = "not running for this user";
    finding.advice = startAdvice(place);
    return {finding};
  }
  const char* display = std::getenv("DISPLAY");
  finding.status = CheckStatus::warning;
  finding.advice = restart;
  if (process->replaced) {
    finding.summary =
        fmt::format("process {} runs a program that was replaced since it started", process->pid);
  } else if (place.bundle &&
             process->executable.parent_path().parent_path() != place.bundle->path() / "Contents") {
    finding.summary = fmt::format("process {} runs from elsewhere: {}", process->pid,
                                  process->executable.native());
    finding.advice = "Use the veskoctl of that bundle, or start the companion of this one.";
  } else if (display && *display && process->display.value_or("") != display) {
    finding.summary =
        fmt::format("process {} runs on {}, this command on display {}", process->pid,
                    process->display ? "display " + *process->display : "no display", display);
    finding.advice = "Start the companion within the desktop that it is to operate.";
  } else {
    finding.status = CheckStatus::ok;
    finding.summary = fmt::format("running, process {}", process->pid);
    finding.advice.clear();
  }
  return {finding};
}

std::vector<Finding> helper(const DoctorPlace& place) {
  Finding finding{.id = "helper", .status = CheckStatus::missing};
  finding.advice = fmt::format("The companion starts it; its log tells why it does not: {}",
                               (place.directories.logs / "app.log").native());
  struct stat info{};
  if (::lstat(place.socket.c_str(), &info) != 0) {
    finding.summary = "no helper listens at " + place.socket.native();
    return {finding};
  }
  auto client = LocalClient::connect(place.socket);
  if (!client) {
    finding.summary = client.error();
    return {finding};
  }
  const auto answer = client->status();
  LocalStatus status;
  if (!answer) {
    finding.summary = answer.error().message;
  } else if (!json::decodeInto(answer->body, status)) {
    finding.summary = "its answer is malformed";
  } else if ((info.st_mode & 0777) != 0600) {
    finding.status = CheckStatus::warning;
    finding.summary = fmt::format("its socket has mode {:04o}, not 0600: {}", info.st_mode & 0777u,
                                  place.socket.native());
    finding.advice = restart;
  } else if (status.version != place.version) {
    finding.status = CheckStatus::warning;
    finding.summary =
        fmt::format("version {} is running, this veskoctl is {}", status.version, place.version);
    finding.advice = restart;
  } else {
    finding.status = CheckStatus::ok;
    finding.summary = fmt::format("version {}, process {}", status.version, status.pid);
    finding.advice.clear();
  }
  return {finding};
}

std::vector<Finding> controlServer(const DoctorPlace& place) {
  Finding finding{.id = "control_server"};
  auto client = LocalClient::connect(place.socket);
  if (!client) {
    finding.summary = "not looked at: it is reached through the helper";
    return {finding};
  }
  finding.status = CheckStatus::missing;
  finding.advice = restart;
  for (const char* path : {"/healthz", "/status"}) {
    const auto answer = client->call("GET", path, std::nullopt, routeTime);
    if (!answer) {
      finding.summary = answer.error().message;
      return {finding};
    }
    if (answer->status != 200) {
      finding.summary = fmt::format("answers GET {} with status {}", path, answer->status);
      return {finding};
    }
  }
  finding.status = CheckStatus::ok;
  finding.summary = "answers";
  finding.advice.clear();
  return {finding};
}

/// Whether a granted consent is in force. Asked with a request that the companion refuses in any
/// case, so that no picture is taken: what it says of the request tells what it thinks of the
/// permission.
std::vector<Finding> recordingInForce(const DoctorPlace& place) {
  if (!place.consents) return {};
  for (const auto& [consent, state] : place.consents->list()) {
    if (consent == "screen_recording" && state != consentGranted) return {};
  }
  auto client = LocalClient::connect(place.socket);
  if (!client) return {};
  const auto answer =
      client->call("POST", "/capture", Object{{"target", "display"}, {"max_dim", 0}}, routeTime);
  if (!answer || (answer->status != 400 && answer->status != 412)) return {};
  if (answer->status == 400)
    return {{.id = "screen_recording", .status = CheckStatus::ok, .summary = "in force"}};
  return {{.id = "screen_recording",
           .status = CheckStatus::missing,
           .summary = "granted, but not when the companion started",
           .advice = restart}};
}

}  // namespace

std::vector<Check> companionChecks(const DoctorPlace& place) {
  const auto bound = [&place](std::vector<Finding> (*check)(const DoctorPlace&)) {
    return [&place, check] { return check(place); };
  };
  return {{"bundle", CheckStatus::missing, "", bound(bundle)},
          {"companion", CheckStatus::unknown, "", bound(companion)},
          {"helper", CheckStatus::missing, restart, bound(helper)},
          {"control_server", CheckStatus::missing, restart, bound(controlServer)},
          {"screen_recording", CheckStatus::unknown, "", bound(recordingInForce)}};
}

}  // namespace vesko
