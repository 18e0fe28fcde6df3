#include "helper/local_client.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "helper/local_socket.h"

namespace vesko {
namespace {

using Clock = std::chrono::steady_clock;

/// Beyond the call's own time: the connection to the control server and the way back.
constexpr std::chrono::seconds margin{8};

std::unexpected<LocalClientError> lost(std::string message) {
  return std::unexpected(LocalClientError{std::nullopt, std::move(message)});
}

struct AnswerRecord {
  bool ok = false;
  std::optional<int> status;
  std::optional<LocalError> error;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("ok", &AnswerRecord::ok),
                      json::field("status", &AnswerRecord::status),
                      json::field("error", &AnswerRecord::error)};
  }
};

}  // namespace

std::expected<LocalClient, std::string> LocalClient::connect(const std::filesystem::path& socket) {
  auto fd = connectLocalSocket(socket);
  if (!fd) return std::unexpected(std::move(fd.error()));
  ::fcntl(fd->get(), F_SETFL, O_NONBLOCK);
  return LocalClient(std::move(*fd));
}

std::expected<LocalAnswer, LocalClientError> LocalClient::status() {
  return exchange({.op = "status"}, margin);
}

std::expected<LocalAnswer, LocalClientError> LocalClient::call(const std::string& method,
                                                               const std::string& path,
                                                               std::optional<json::Value> body,
                                                               std::chrono::milliseconds timeout) {
  return exchange({.op = "call",
                   .method = method,
                   .path = path,
                   .body = std::move(body),
                   .timeout = std::chrono::duration<double>(timeout).count()},
                  timeout + margin);
}

void LocalClient::interrupt() {
  ::shutdown(fd_.get(), SHUT_RDWR);
}

bool LocalClient::quiet() const {
  pollfd ready{.fd = fd_.get(), .events = POLLIN, .revents = 0};
  return ::poll(&ready, 1, 0) == 0;
}

std::expected<LocalAnswer, LocalClientError> LocalClient::exchange(
    const LocalRequest& request, std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  const std::int64_t id = nextId_++;
  std::string line = "{\"id\":" + std::to_string(id) + ",";
  // The record's own object goes on where the id ended.
  const auto rest = json::encode(request);
  if (!rest) return lost("the request is not valid UTF-8");
  line += rest->substr(1) + "\n";

  std::string_view unsent = line;
  while (!unsent.empty()) {
    const ssize_t count = ::send(fd_.get(), unsent.data(), unsent.size(), MSG_NOSIGNAL);
    if (count >= 0) {
      unsent.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno == EPIPE || errno == ECONNRESET) {
      break;  // a helper that refuses says why before it closes
    } else if ((errno != EAGAIN && errno != EINTR) || !waitFor(POLLOUT, deadline)) {
      return lost("the helper does not take the request");
    }
  }
  std::vector<char> chunk(65536);
  for (;;) {
    while (auto answer = lines_.next()) {
      auto value = json::parse(answer->text, maxAnswerDepth);
      AnswerRecord record;
      if (!value || !json::decodeInto(*value, record))
        return lost("the helper's answer is malformed");
      const json::Value* answered = value->find("id");
      if (answered && answered->asInteger() && answered->asInteger() != id) continue;
      if (!record.ok) {
        if (!record.error) return lost("the helper's answer is malformed");
        return std::unexpected(LocalClientError{record.error->code, record.error->message});
      }
      const json::Value* body = value->find("body");
      return LocalAnswer{record.status.value_or(0), body ? *body : json::Value()};
    }
    const ssize_t count = ::read(fd_.get(), chunk.data(), chunk.size());
    if (count > 0) {
      lines_.append({chunk.data(), static_cast<std::size_t>(count)});
    } else if (count == 0) {
      return lost("the helper ended the connection without an answer");
    } else if (errno != EAGAIN && errno != EINTR) {
      return lost("the connection to the helper failed");
    } else if (!waitFor(POLLIN, deadline)) {
      return lost("the helper did not answer in time");
    }
  }
}

bool LocalClient::waitFor(short events, Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
  pollfd ready{.fd = fd_.get(), .events = events, .revents = 0};
  const int count = left.count() > 0 ? ::poll(&ready, 1, static_cast<int>(left.count())) : 0;
  return count > 0 || (count < 0 && errno == EINTR);
}

}  // namespace vesko
