#include "platform/linux/privacy_window_mark.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <system_error>

namespace vesko {

PrivacyWindowMark::PrivacyWindowMark(const std::filesystem::path& consents) : file_(consents) {
  file_ += ".shown";
}

std::expected<UniqueFd, std::string> PrivacyWindowMark::show() const {
  UniqueFd file(::open(file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file) return std::unexpected(std::generic_category().message(errno));
  while (::flock(file.get(), LOCK_SH) != 0) {
    if (errno != EINTR) return std::unexpected(std::generic_category().message(errno));
  }
  return file;
}

bool PrivacyWindowMark::shown() const {
  const UniqueFd file(::open(file_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  return file && ::flock(file.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

}  // namespace vesko
