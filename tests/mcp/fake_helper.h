// A helper that answers the local protocol on a real socket, with a companion behind it that a test
// scripts. Threads of its own; the script is called on them, several at once.
#pragma once

#include <poll.h>
#include <sys/socket.h>

#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/json.h"
#include "base/unique_fd.h"
#include "helper/bounded_lines.h"
#include "helper/local_socket.h"

namespace vesko::test {

class FakeHelper {
 public:
  /// Status and body of a call's answer.
  using Answer = std::pair<int, std::string>;
  using Script = std::function<Answer(const std::string& path, const json::Value& body)>;

  FakeHelper(const std::filesystem::path& directory, Script script)
      : socket_(LocalSocket::listen(directory).value()), script_(std::move(script)) {
    int ends[2];
    if (::pipe(ends) != 0) std::abort();
    stopRead_.reset(ends[0]);
    stopWrite_.reset(ends[1]);
    listener_ = std::thread([this] { listen(); });
  }
  ~FakeHelper() {
    stopWrite_.reset();
    listener_.join();
    for (std::thread& connection : connections_) connection.join();
  }

 private:
  /// False once the helper ends.
  bool readable(int fd) const {
    pollfd ready[] = {{fd, POLLIN, 0}, {stopRead_.get(), POLLIN, 0}};
    return ::poll(ready, 2, -1) > 0 && ready[1].revents == 0;
  }

  void listen() {
    while (readable(socket_.fd())) {
      UniqueFd client(::accept(socket_.fd(), nullptr, nullptr));
      if (client) connections_.emplace_back([this, fd = std::move(client)] { serve(fd.get()); });
    }
  }

  void serve(int fd) {
    BoundedLines lines(8 << 20);
    std::vector<char> chunk(65536);
    while (readable(fd)) {
      const ssize_t count = ::recv(fd, chunk.data(), chunk.size(), MSG_DONTWAIT);
      if (count < 0) continue;
      if (count == 0) return;
      lines.append({chunk.data(), static_cast<std::size_t>(count)});
      while (auto line = lines.next()) answer(fd, json::parse(line->text).value());
    }
  }

  void answer(int fd, const json::Value& request) {
    const json::Value* path = request.find("path");
    const json::Value* body = request.find("body");
    const auto [status, text] = path ? script_(*path->asString(), body ? *body : json::Value())
                                     : Answer{0, R"({"version":"1"})"};
    const std::string line = "{\"id\":" + *json::serialize(*request.find("id")) +
                             ",\"ok\":true,\"status\":" + std::to_string(status) +
                             ",\"body\":" + text + "}\n";
    for (std::size_t sent = 0; sent < line.size();) {
      const ssize_t count = ::send(fd, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
      if (count < 0) return;
      sent += static_cast<std::size_t>(count);
    }
  }

  LocalSocket socket_;
  Script script_;
  UniqueFd stopRead_;
  UniqueFd stopWrite_;
  std::thread listener_;
  std::vector<std::thread> connections_;  ///< the listener's own until it has ended
};

}  // namespace vesko::test
