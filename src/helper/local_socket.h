// The helper's Unix socket file, which may lie deeper than a socket address can name. Any thread.
#pragma once

#include <sys/types.h>

#include <expected>
#include <filesystem>
#include <string>

#include "base/unique_fd.h"

namespace vesko {

inline constexpr const char* localSocketName = "veskoctl.sock";

/// The socket this process listens on. Destroying it removes the file, unless another helper has
/// put its own there meanwhile.
class LocalSocket {
 public:
  /// Takes the name over from a dead helper, and from one that is still ending. The file has mode
  /// 0600 from its first moment. Changes the umask for a moment: call it before threads start.
  static std::expected<LocalSocket, std::string> listen(const std::filesystem::path& directory);

  LocalSocket(LocalSocket&&) = default;
  LocalSocket& operator=(LocalSocket&&) = delete;
  ~LocalSocket();

  int fd() const { return listener_.get(); }

 private:
  LocalSocket(UniqueFd directory, UniqueFd listener)
      : directory_(std::move(directory)), listener_(std::move(listener)) {}

  UniqueFd directory_;
  UniqueFd listener_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

/// A blocking connection to a socket that the same user serves.
std::expected<UniqueFd, std::string> connectLocalSocket(const std::filesystem::path& socket);

}  // namespace vesko
