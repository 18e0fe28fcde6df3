// A program's side of the local protocol (local_protocol.h). One thread.
#pragma once

#include <chrono>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>

#include "base/unique_fd.h"
#include "helper/bounded_lines.h"
#include "helper/local_protocol.h"

namespace vesko {

struct LocalAnswer {
  int status = 0;  ///< of the control server; 0 when it was not asked
  json::Value body;
};

struct LocalClientError {
  /// What the helper said; nothing when no usable answer came from it.
  std::optional<LocalErrorCode> code;
  std::string message;
};

class LocalClient {
 public:
  /// The error names the path and the reason.
  static std::expected<LocalClient, std::string> connect(const std::filesystem::path& socket);

  std::expected<LocalAnswer, LocalClientError> status();
  /// Waits a little longer than `timeout`, so that the helper's own word on it arrives.
  std::expected<LocalAnswer, LocalClientError> call(const std::string& method,
                                                    const std::string& path,
                                                    std::optional<json::Value> body,
                                                    std::chrono::milliseconds timeout);

  /// Makes the call under way fail. Any thread, while the client exists.
  void interrupt();
  /// Nothing has come and the helper has not left since the last answer.
  bool quiet() const;

 private:
  explicit LocalClient(UniqueFd fd) : fd_(std::move(fd)) {}

  std::expected<LocalAnswer, LocalClientError> exchange(const LocalRequest& request,
                                                        std::chrono::milliseconds limit);
  bool waitFor(short events, std::chrono::steady_clock::time_point deadline);

  UniqueFd fd_;
  BoundedLines lines_{128 << 20};
  std::int64_t nextId_ = 1;
};

}  // namespace vesko
