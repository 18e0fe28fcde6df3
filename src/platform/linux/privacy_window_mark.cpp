#include "platform/linux/privacy_window_mark.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace vesko {
namespace {

struct flock whole(short type) {
  struct flock lock{};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

}  // namespace

PrivacyWindowMark::PrivacyWindowMark(const std::filesystem::path& consents) : file_(consents) {
  file_ += ".shown";
}

std::expected<UniqueFd, std::string> PrivacyWindowMark::show() const {
  UniqueFd file(::open(file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  struct flock lock = whole(F_RDLCK);
  if (!file || ::fcntl(file.get(), F_OFD_SETLK, &lock) != 0)
    return std::unexpected(std::generic_category().message(errno));
  return file;
}

// Asks what stands in the way of a lock without taking one: another that asks at the same moment
// must not find this question.
bool PrivacyWindowMark::shown() const {
  const UniqueFd file(::open(file_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  struct flock lock = whole(F_WRLCK);
  return file && ::fcntl(file.get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

}  // namespace vesko
