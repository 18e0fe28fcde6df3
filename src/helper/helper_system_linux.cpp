#include <sys/socket.h>
#include <sys/syscall.h>

#include <system_error>

#include "helper/helper_system.h"

namespace vesko {

std::optional<uid_t> peerUser(int socket) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return std::nullopt;
  return credentials.uid;
}

UniqueFd watchProcess(pid_t pid) {
  // The C library's own declaration lacks C linkage in some releases.
  return UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
}

std::filesystem::path ownExecutable() {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error);
}

}  // namespace vesko
