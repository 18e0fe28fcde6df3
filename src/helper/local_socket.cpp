#include "helper/local_socket.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "helper/helper_system.h"

namespace vesko {
namespace {

std::string systemMessage() {
  return std::strerror(errno);
}

UniqueFd openDirectory(const std::filesystem::path& path) {
  return UniqueFd(::open(path.empty() ? "." : path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

/// The address of `name` in the directory. A path that is too long is shortened through the open
/// directory, where the system offers that.
bool fillAddress(sockaddr_un& address, const std::filesystem::path& directory, int directoryFd,
                 const std::string& name) {
  address = {};
  address.sun_family = AF_UNIX;
  std::string path = (directory / name).native();
  if (path.size() >= sizeof address.sun_path)
    path = fmt::format("/proc/self/fd/{}/{}", directoryFd, name);
  if (path.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return false;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return true;
}

UniqueFd streamSocket() {
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM, 0));
  if (fd) ::fcntl(fd.get(), F_SETFD, FD_CLOEXEC);
  return fd;
}

/// Held while the socket's name changes hands, so that a helper that ends cannot remove the file
/// of its successor.
class DirectoryLock {
 public:
  explicit DirectoryLock(int fd) : fd_(fd) {
    while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
    }
  }
  ~DirectoryLock() { ::flock(fd_, LOCK_UN); }
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;

 private:
  int fd_;
};

}  // namespace

std::expected<LocalSocket, std::string> LocalSocket::listen(
    const std::filesystem::path& directory) {
  const auto failed = [&](std::string_view what) {
    return std::unexpected(
        fmt::format("cannot {} in {}: {}", what, directory.native(), systemMessage()));
  };
  UniqueFd directoryFd = openDirectory(directory);
  if (!directoryFd) return failed("open the socket's directory");
  UniqueFd listener = streamSocket();
  // A name of its own first, renamed into place: clients always find the old socket or the new.
  const std::string temporary = fmt::format("{}.{}", localSocketName, ::getpid());
  ::unlinkat(directoryFd.get(), temporary.c_str(), 0);
  sockaddr_un address;
  if (!listener || !fillAddress(address, directory, directoryFd.get(), temporary))
    return failed("make a socket");
  const mode_t mask = ::umask(0177);
  const int bound =
      ::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  ::umask(mask);
  if (bound != 0) return failed("make a socket");
  LocalSocket result(std::move(directoryFd), std::move(listener));
  struct stat info{};
  const int dir = result.directory_.get();
  bool ready = ::fcntl(result.fd(), F_SETFL, O_NONBLOCK) == 0 &&
               ::listen(result.fd(), SOMAXCONN) == 0 &&
               ::fstatat(dir, temporary.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
  if (ready) {
    const DirectoryLock lock(dir);
    ready = ::renameat(dir, temporary.c_str(), dir, localSocketName) == 0;
  }
  if (!ready) {
    auto error = failed("put a socket in place");
    ::unlinkat(dir, temporary.c_str(), 0);
    return error;
  }
  result.device_ = info.st_dev;
  result.inode_ = info.st_ino;
  return result;
}

LocalSocket::~LocalSocket() {
  if (!directory_) return;
  const DirectoryLock lock(directory_.get());
  struct stat info{};
  if (::fstatat(directory_.get(), localSocketName, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
      info.st_dev == device_ && info.st_ino == inode_)
    ::unlinkat(directory_.get(), localSocketName, 0);
}

std::expected<UniqueFd, std::string> connectLocalSocket(const std::filesystem::path& socket) {
  const auto failed = [&](std::string_view why) {
    return std::unexpected(fmt::format("no helper answers at {}: {}", socket.native(), why));
  };
  const UniqueFd directory = openDirectory(socket.parent_path());
  if (!directory) return failed(systemMessage());
  UniqueFd fd = streamSocket();
  sockaddr_un address;
  if (!fd ||
      !fillAddress(address, socket.parent_path(), directory.get(), socket.filename().native()))
    return failed(systemMessage());
  if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return failed(systemMessage());
  if (peerUser(fd.get()) != ::geteuid()) return failed("it belongs to another user");
  return fd;
}

}  // namespace vesko
