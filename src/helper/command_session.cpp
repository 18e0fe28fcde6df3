#include "helper/command_session.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>

namespace vesko {
namespace {

/// More than any request may carry.
constexpr std::size_t maxInputBytes = 4 << 20;

std::optional<double> parseNumber(std::string_view text) {
  if (text.starts_with('+')) text.remove_prefix(1);
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value))
    return std::nullopt;
  return value;
}

bool writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(fd, text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

std::string memberText(const json::Value* value, std::string_view key) {
  const json::Value* member = value ? value->find(key) : nullptr;
  const std::string* text = member ? member->asString() : nullptr;
  return text ? *text : "";
}

bool meansUnreachable(LocalErrorCode code) {
  return code == LocalErrorCode::notReady || code == LocalErrorCode::unreachable ||
         code == LocalErrorCode::untrusted;
}

}  // namespace

std::string plainText(const json::Value* value) {
  if (!value || value->isNull()) return "-";
  if (const std::string* text = value->asString()) return *text;
  if (const auto flag = value->asBool()) return *flag ? "yes" : "no";
  return json::serialize(*value).value_or("-");
}

std::expected<json::Value, int> CommandSession::call(const std::string& method,
                                                     const std::string& path,
                                                     std::optional<json::Value> body) {
  const auto limit = timeout(defaultCallTime);
  if (!limit) return std::unexpected(limit.error());
  const auto helper = client();
  if (!helper) return std::unexpected(helper.error());
  return accept((*helper)->call(method, path, std::move(body), *limit));
}

std::expected<json::Value, int> CommandSession::helperStatus() {
  const auto helper = client();
  if (!helper) return std::unexpected(helper.error());
  return accept((*helper)->status());
}

int CommandSession::perform(const std::string& path, json::Object body) {
  const auto answer = call("POST", path, std::move(body));
  if (!answer) return answer.error();
  return json_ ? printJson(*answer) : exitOk;
}

std::string CommandSession::missing(const std::string& consent) {
  const auto editor = environment_.consents ? environment_.consents(stateDirectory()) : nullptr;
  const auto entries = editor ? editor->list() : std::vector<ConsentEditor::Entry>();
  const auto entry = std::ranges::find(entries, consent, &ConsentEditor::Entry::consent);
  if (entry != entries.end() && entry->state == consentGranted)
    return fmt::format(
        "permission not active: {}; it is granted and counts once the companion is started again",
        consent);
  return fmt::format("permission missing: {0}; grant it with: veskoctl consent grant {0}", consent);
}

std::expected<json::Value, int> CommandSession::accept(
    std::expected<LocalAnswer, LocalClientError> answer) {
  if (!answer) {
    const auto code = answer.error().code;
    return std::unexpected(fail(code && meansUnreachable(*code) ? exitUnreachable : exitFailed,
                                code ? json::wordOf(*code) : "no_answer", answer.error().message));
  }
  const int status = answer->status;
  json::Value& body = answer->body;
  const json::Value* ok = body.find("ok");
  const bool toolFailed =
      ok && ok->asBool() == false && body.find("error") && body.find("error")->asObject();
  if ((status == 0 || (status >= 200 && status < 300)) && !toolFailed) return std::move(body);
  if (const std::string needs = memberText(&body, "needs"); status == 412 && !needs.empty())
    return std::unexpected(
        fail(exitPermissionMissing, "permission_missing", missing(needs), {{"needs", needs}}));
  const json::Value* source = toolFailed ? body.find("error") : &body;
  std::string message = memberText(source, "message");
  if (message.empty()) message = fmt::format("the companion answered with status {}", status);
  return std::unexpected(
      fail(exitFailed, "request_failed", message, {{"status", status}, {"body", std::move(body)}}));
}

std::expected<std::string, int> CommandSession::textArgument(std::size_t index) {
  if (index < invocation_.arguments.size() && argument(index) != "-") return argument(index);
  std::string text;
  std::vector<char> chunk(65536);
  for (;;) {
    const ssize_t count = ::read(STDIN_FILENO, chunk.data(), chunk.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0)
      return std::unexpected(
          fail(exitFailed, "input",
               fmt::format("cannot read standard input: {}", std::strerror(errno))));
    if (count == 0) return text;
    text.append(chunk.data(), static_cast<std::size_t>(count));
    if (text.size() > maxInputBytes)
      return std::unexpected(fail(exitFailed, "input", "standard input is too long"));
  }
}

std::expected<double, int> CommandSession::numberArgument(std::size_t index) {
  if (const auto number = parseNumber(argument(index))) return *number;
  return std::unexpected(usageError(fmt::format("{} is not a number", argument(index))));
}

std::expected<std::unique_ptr<ConsentEditor>, int> CommandSession::consents() {
  if (!environment_.consents)
    return std::unexpected(
        fail(exitFailed, "unsupported", "this desktop keeps the permissions itself"));
  return environment_.consents(stateDirectory());
}

std::filesystem::path CommandSession::stateDirectory() const {
  const auto candidates = sockets();
  auto directory = candidates.empty() ? std::filesystem::path() : candidates.front().parent_path();
  for (const auto& socket : candidates) {
    std::error_code error;
    if (!std::filesystem::is_directory(socket.parent_path(), error)) continue;
    directory = socket.parent_path();
    break;
  }
  return directory;
}

int CommandSession::print(std::string_view text) {
  if (writeAll(STDOUT_FILENO, text)) return exitOk;
  writeAll(STDERR_FILENO,
           fmt::format("veskoctl: cannot write to standard output: {}\n", std::strerror(errno)));
  return exitFailed;
}

int CommandSession::printJson(const json::Value& value) {
  return print(json::serialize(value).value_or("null") + "\n");
}

int CommandSession::usageError(std::string_view message) {
  return fail(exitUsage, "usage", message);
}

int CommandSession::fail(ExitCode exit, std::string_view code, std::string_view message,
                         json::Object details) {
  writeAll(STDERR_FILENO, fmt::format("veskoctl: {}\n", message));
  if (json_) {
    json::Object error{{"code", code}, {"message", message}};
    for (json::Member& detail : details) error.push_back(std::move(detail));
    printJson(json::Object{{"ok", false}, {"error", std::move(error)}});
  }
  return exit;
}

std::expected<LocalClient*, int> CommandSession::client() {
  if (client_) return &*client_;
  std::string reasons;
  for (const auto& socket : sockets()) {
    auto connected = LocalClient::connect(socket);
    if (connected) return &client_.emplace(std::move(*connected));
    reasons += (reasons.empty() ? "" : "; ") + connected.error();
  }
  reasons = reasons.empty() ? "no home directory, so no helper can be found; use --socket"
                            : reasons + "; is Vesko Companion running?";
  return std::unexpected(fail(exitUnreachable, "no_helper", reasons));
}

std::expected<std::chrono::milliseconds, int> CommandSession::timeout(
    std::chrono::milliseconds otherwise) {
  const auto text = invocation_.value("timeout");
  if (!text) return otherwise;
  const auto seconds = parseNumber(*text);
  if (!seconds || *seconds <= 0 || *seconds > maxCallSeconds)
    return std::unexpected(
        usageError(fmt::format("--timeout takes up to {} seconds", maxCallSeconds)));
  return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(*seconds));
}

std::vector<std::filesystem::path> CommandSession::sockets() const {
  if (const auto named = invocation_.value("socket")) return {*named};
  return environment_.sockets;
}

}  // namespace vesko
