// A sign on the file system, seen by all processes of the user, that a privacy window is on the
// screen: an advisory read lock (F_OFD_SETLK) on a file beside the consents, which the system lets
// go of when the window's process ends, however it ends. Any thread.
#pragma once

#include <expected>
#include <filesystem>
#include <string>

#include "base/unique_fd.h"

namespace vesko {

class PrivacyWindowMark {
 public:
  explicit PrivacyWindowMark(const std::filesystem::path& consents);

  /// Makes the sign for as long as the descriptor is open; several windows can. The error is a
  /// text for people.
  std::expected<UniqueFd, std::string> show() const;
  bool shown() const;

 private:
  std::filesystem::path file_;
};

}  // namespace vesko
