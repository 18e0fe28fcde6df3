#include "helper/local_requests.h"

#include <fmt/format.h>

#include <algorithm>

namespace vesko {
namespace {

LocalErrorCode codeOf(ControlCallError::Kind kind) {
  switch (kind) {
    case ControlCallError::Kind::unreachable:
      return LocalErrorCode::unreachable;
    case ControlCallError::Kind::untrusted:
      return LocalErrorCode::untrusted;
    case ControlCallError::Kind::timedOut:
      return LocalErrorCode::timedOut;
    case ControlCallError::Kind::badAnswer:
      return LocalErrorCode::badAnswer;
    case ControlCallError::Kind::cancelled:
      return LocalErrorCode::cancelled;
  }
  return LocalErrorCode::badAnswer;
}

void beginAnswer(json::Writer& writer, const json::Value& id, bool ok) {
  writer.beginObject();
  writer.key("id");
  writer.value(id);
  writer.key("ok");
  writer.value(ok);
}

/// Numbers and texts name a request; anything else does not come back.
json::Value usableId(const json::Value& message) {
  const json::Value* id = message.find("id");
  return id && (id->asDouble() || id->asString()) ? *id : json::Value();
}

std::string answerLine(const json::Value& id, HttpResponse response) {
  if (!json::parse(response.body, maxAnswerDepth))
    return LocalRequests::errorLine(id, LocalErrorCode::badAnswer,
                                    "the control server's answer is not JSON");
  // A picture's megabytes go on as they came. A line end can only be white space between tokens,
  // since texts hold theirs escaped.
  std::ranges::replace(response.body, '\n', ' ');
  std::string line;
  line.reserve(response.body.size() + 128);
  json::Writer writer(line);
  beginAnswer(writer, id, true);
  writer.key("status");
  writer.value(std::int64_t{response.status});
  writer.key("body");
  line += response.body;
  writer.endObject();
  return line;
}

}  // namespace

std::string LocalRequests::errorLine(const json::Value& id, LocalErrorCode code,
                                     std::string message) {
  std::string line;
  json::Writer writer(line);
  beginAnswer(writer, id, false);
  writer.key("error");
  json::write(writer, LocalError{code, std::move(message)});
  writer.endObject();
  return line;
}

LocalServer::Work LocalRequests::begin(BoundedLines::Line line) {
  const auto invalid = [](const json::Value& id, std::string message) {
    return errorLine(id, LocalErrorCode::invalidRequest, std::move(message));
  };
  if (line.tooLong)
    return invalid({}, fmt::format("a request may have {} bytes", maxLocalRequestBytes));
  const auto message = json::parse(line.text);
  if (!message) return invalid({}, "not JSON: " + message.error());
  LocalRequest request{.id = usableId(*message)};
  if (auto decoded = json::decodeInto(*message, request); !decoded)
    return invalid(request.id, decoded.error().message);
  if (request.op == "call") return call(request);
  if (request.op != "status") return invalid(request.id, "op: expected status or call");
  std::string answer;
  json::Writer writer(answer);
  beginAnswer(writer, request.id, true);
  writer.key("body");
  json::write(writer, status_());
  writer.endObject();
  // An environment that is not UTF-8 can make the status inexpressible.
  if (!writer.ok())
    return errorLine(request.id, LocalErrorCode::badAnswer, "the status is not valid UTF-8");
  return answer;
}

LocalServer::Work LocalRequests::call(const LocalRequest& request) {
  const auto invalid = [&](std::string message) {
    return errorLine(request.id, LocalErrorCode::invalidRequest, std::move(message));
  };
  ControlRequest http{
      .method = request.method.value_or("POST"), .path = request.path.value_or(""), .body = {}};
  if (!http.wellFormed())
    return invalid("method: expected capital letters; path: expected one that begins with a slash");
  if (request.timeout && !(*request.timeout > 0 && *request.timeout <= maxCallSeconds))
    return invalid(fmt::format("timeout: expected up to {} seconds", maxCallSeconds));
  if (request.body) {
    http.body = json::serialize(*request.body).value_or("");
  } else if (http.method == "POST") {
    http.body = "{}";
  }
  const auto& endpoint = companion_.controlServer();
  if (!endpoint)
    return errorLine(request.id, LocalErrorCode::notReady,
                     "the companion has not announced its control server yet");
  ControlDeadlines deadlines;
  deadlines.answer = defaultCallTime;
  if (request.timeout)
    deadlines.answer = std::chrono::ceil<std::chrono::milliseconds>(
        std::chrono::duration<double>(*request.timeout));
  return [this, id = request.id, endpoint = *endpoint, http = std::move(http), deadlines] {
    auto answer = client_.call(endpoint, http, deadlines, cancelFd_);
    if (answer) return answerLine(id, std::move(*answer));
    if (answer.error().kind == ControlCallError::Kind::untrusted)
      reporter_.log("refused a control server with a certificate that was not announced");
    return errorLine(id, codeOf(answer.error().kind), std::move(answer.error().message));
  };
}

}  // namespace vesko
