#include "app/instance_lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

#include "base/file.h"

namespace vesko {

InstanceLock::Outcome InstanceLock::acquire(const std::filesystem::path& stateDirectory) {
  if (!createDirectories(stateDirectory, 0700)) return Outcome::unavailable;
  const auto path = stateDirectory / "companion.lock";
  file_.reset(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file_) return Outcome::unavailable;
  if (::flock(file_.get(), LOCK_EX | LOCK_NB) == 0) return Outcome::acquired;
  const bool taken = errno == EWOULDBLOCK;
  file_.reset();
  return taken ? Outcome::taken : Outcome::unavailable;
}

}  // namespace vesko
