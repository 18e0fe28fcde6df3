#include "helper/mcp/companion_link.h"

#include <fmt/format.h>

#include "helper/mcp/json_rpc.h"

namespace vesko::mcp {
namespace {

using json::Value;

/// More than requests run at once.
constexpr std::size_t maxIdle = 8;

struct Advice {
  std::string_view saying;  ///< a part of the companion's message
  std::string_view next;
  LinkError::Kind kind = LinkError::Kind::refused;
};

constexpr Advice advices[] = {
    {"application not found",
     "list_windows shows the bundle_id of what runs; launch_application "
     "starts what is installed.",
     LinkError::Kind::noApplication},
    {"window not found", "Window ids end with their window: take a current one from list_windows."},
    {"display not found", "list_displays shows the ids."},
    {"AX error -25205",
     "The element has nothing of that kind; look at it with desktop_snapshot, "
     "or use click and type_text at its frame."},
    {"AX error -25206",
     "The element does not offer that action; click the middle of its frame "
     "instead."},
    {"the application does not answer",
     "It may be busy or starting: wait_for_element waits for it.", LinkError::Kind::silent},
    {"AX error -25211", "That application offers no accessibility; use capture_screen and click.",
     LinkError::Kind::silent},
    {"AX error -25212",
     "No window has the keyboard, or it shows no elements: see list_windows, bring one to the "
     "front with control_window, or pass bundle_id.",
     LinkError::Kind::silent},
    {"AX error",
     "Take a new desktop_snapshot and look whether the element is enabled; click and "
     "type_text may work where the action does not."},
    {"clipboard text is unavailable", "The clipboard holds no text now."},
    {"invalid capture request",
     "A region lies relative to its display's top left corner and must be within the size that "
     "list_displays gives."},
    {"could not activate",
     "The window manager did not bring it to the front; try control_window "
     "with action focus."},
    {"rejected quit",
     "The application did not take the request; a dialog of it may be waiting for "
     "an answer: take a desktop_snapshot."},
};

/// The router's own word, which is that of no tool.
constexpr std::string_view noRoute = "not found";

LinkError refusal(int status, const std::string& message) {
  if (status == 404 && message == noRoute)
    return {LinkError::Kind::refused, status,
            "This companion does not offer that yet; the user may need a newer version."};
  for (const Advice& advice : advices) {
    if (message.contains(advice.saying))
      return {advice.kind, status, fmt::format("{}. {}", message, advice.next)};
  }
  return {LinkError::Kind::refused, status, message};
}

LinkError missingPermission(const std::string& needs) {
  std::string message = fmt::format(
      "The user has not allowed this yet: {0} is missing. Ask the user to allow it (veskoctl "
      "privacy opens the window; veskoctl consent grant {0} does it in a terminal), then call "
      "again.",
      needs);
  if (needs == "screen_recording")
    message += " A new permission to record the screen counts once the companion has restarted.";
  return {LinkError::Kind::refused, 412, std::move(message)};
}

/// The answer's body when the companion did what was asked.
std::expected<Value, LinkError> judge(LocalAnswer answer) {
  const Value* error = objectMember(answer.body, "error");
  const Value* ok = answer.body.find("ok");
  const bool toolFailed = ok && ok->asBool() == false && error;
  if ((answer.status == 0 || (answer.status >= 200 && answer.status < 300)) && !toolFailed)
    return std::move(answer.body);
  if (const std::string* needs = textMember(answer.body, "needs"); needs && answer.status == 412)
    return std::unexpected(missingPermission(*needs));
  const Value& source = toolFailed ? *error : answer.body;
  const std::string* code = textMember(source, "code");
  const std::string* text = textMember(source, "message");
  if ((code && *code == "ax_element_gone") || (text && *text == "ax_element_gone"))
    return std::unexpected(
        LinkError{LinkError::Kind::elementGone, answer.status,
                  "The element does not exist any more: its window changed or closed. Take a new "
                  "desktop_snapshot (or find_elements) and use a reference from there."});
  return std::unexpected(
      refusal(answer.status,
              text ? *text : fmt::format("The companion answered with status {}.", answer.status)));
}

LinkError explain(const LocalClientError& error) {
  using Kind = LinkError::Kind;
  if (!error.code)
    return {Kind::unknown, 0,
            error.message + "; it may have been done all the same. Look before you call again."};
  switch (*error.code) {
    case LocalErrorCode::notReady:
      return {Kind::unreachable, 0,
              "Vesko Companion is still starting. Wait a few seconds, then call again."};
    case LocalErrorCode::busy:
      return {Kind::unreachable, 0,
              "The helper serves too many programs right now. Wait a moment, then call again."};
    case LocalErrorCode::unreachable:
    case LocalErrorCode::untrusted:
      return {Kind::unreachable, 0,
              fmt::format("The companion cannot be reached ({}). Ask the user to start Vesko "
                          "Companion again.",
                          error.message)};
    case LocalErrorCode::invalidRequest:
      return {Kind::refused, 0, error.message};
    case LocalErrorCode::timedOut:
    case LocalErrorCode::badAnswer:
    case LocalErrorCode::cancelled:
      break;
  }
  return {Kind::unknown, 0,
          fmt::format("There was no complete answer ({}); it may have been done all the same. Look "
                      "before you call again.",
                      error.message)};
}

}  // namespace

std::expected<Value, LinkError> CompanionLink::call(CallContext& context, const std::string& path,
                                                    json::Object body,
                                                    std::chrono::milliseconds timeout,
                                                    const char* method) {
  return exchange(context, [&](LocalClient& client) {
    return client.call(
        method, path,
        method == std::string_view("GET") ? std::nullopt : std::optional<Value>(std::move(body)),
        timeout);
  });
}

std::expected<Value, LinkError> CompanionLink::helperStatus(CallContext& context) {
  return exchange(context, [](LocalClient& client) { return client.status(); });
}

std::expected<Value, LinkError> CompanionLink::exchange(CallContext& context,
                                                        const Exchange& exchange) {
  if (context.cancelled()) return std::unexpected(LinkError{.kind = LinkError::Kind::cancelled});
  auto client = connection();
  if (!client) return std::unexpected(std::move(client.error()));
  auto answer = [&] {
    const CallContext::Interruptible guard(context, [&] { client->interrupt(); });
    return exchange(*client);
  }();
  if (context.cancelled()) return std::unexpected(LinkError{.kind = LinkError::Kind::cancelled});
  // After a wordless failure an answer may still be on its way, or the connection is gone.
  if (answer || answer.error().code) {
    const MutexLock lock(mutex_);
    if (idle_.size() < maxIdle) idle_.push_back(std::move(*client));
  }
  if (!answer) return std::unexpected(explain(answer.error()));
  return judge(std::move(*answer));
}

std::expected<LocalClient, LinkError> CompanionLink::connection() {
  {
    const MutexLock lock(mutex_);
    while (!idle_.empty()) {
      LocalClient client = std::move(idle_.back());
      idle_.pop_back();
      if (client.quiet()) return client;
    }
  }
  std::string reasons;
  for (const auto& socket : sockets_) {
    auto client = LocalClient::connect(socket);
    if (client) return std::move(*client);
    reasons += (reasons.empty() ? "" : "; ") + client.error();
  }
  return std::unexpected(LinkError{
      LinkError::Kind::unreachable, 0,
      fmt::format("Vesko Companion is not running, or its helper is not ({}). Ask the user to "
                  "start it, then call again.",
                  reasons.empty() ? "no home directory" : reasons)});
}

}  // namespace vesko::mcp
