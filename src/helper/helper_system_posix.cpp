// For systems with getpeereid(3), which is what the BSDs and their relatives offer.
#include <unistd.h>

#include "helper/helper_system.h"

namespace vesko {

std::optional<uid_t> peerUser(int socket) {
  uid_t user = 0;
  gid_t group = 0;
  if (::getpeereid(socket, &user, &group) != 0) return std::nullopt;
  return user;
}

UniqueFd watchProcess(pid_t) {
  return {};
}

std::filesystem::path ownExecutable() {
  return {};
}

}  // namespace vesko
