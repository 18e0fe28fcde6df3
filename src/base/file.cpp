#include "base/file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "base/unique_fd.h"

namespace vesko {
namespace {

std::unexpected<std::error_code> systemError() {
  return std::unexpected(std::error_code(errno, std::generic_category()));
}

bool writeAll(int fd, std::string_view content) {
  while (!content.empty()) {
    const ssize_t count = ::write(fd, content.data(), content.size());
    if (count < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    content.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

}  // namespace

std::expected<std::string, std::error_code> readFile(const std::filesystem::path& path,
                                                     std::size_t maxBytes) {
  const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd) return systemError();
  std::string content;
  char chunk[16384];
  for (;;) {
    const ssize_t count = ::read(fd.get(), chunk, sizeof chunk);
    if (count < 0) {
      if (errno == EINTR) continue;
      return systemError();
    }
    if (count == 0) return content;
    content.append(chunk, static_cast<std::size_t>(count));
    if (content.size() > maxBytes)
      return std::unexpected(std::make_error_code(std::errc::file_too_large));
  }
}

std::expected<void, std::error_code> replaceFile(const std::filesystem::path& path,
                                                 std::string_view content, mode_t mode) {
  static std::atomic<unsigned> serial{0};
  auto temporary = path;
  temporary += fmt::format(".{}.{}.tmp", ::getpid(), serial++);
  UniqueFd fd(
      ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
  if (!fd) return systemError();
  // The umask may have taken bits away; the caller's mode is what counts.
  const bool written = ::fchmod(fd.get(), mode) == 0 && writeAll(fd.get(), content) &&
                       ::fsync(fd.get()) == 0 && ::rename(temporary.c_str(), path.c_str()) == 0;
  if (!written) {
    const auto error = systemError();
    ::unlink(temporary.c_str());
    return error;
  }
  // Without this the rename itself may be lost in a power cut; the old content would remain, so a
  // failure here is no reason to report one.
  const UniqueFd directory(::open(path.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory) ::fsync(directory.get());
  return {};
}

std::expected<void, std::error_code> writeInto(const std::filesystem::path& path,
                                               std::string_view content) {
  const UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (!fd || !writeAll(fd.get(), content)) return systemError();
  return {};
}

std::expected<void, std::error_code> createDirectories(const std::filesystem::path& path,
                                                       mode_t mode) {
  struct stat info{};
  if (::stat(path.c_str(), &info) == 0) {
    if (S_ISDIR(info.st_mode)) return {};
    return std::unexpected(std::make_error_code(std::errc::not_a_directory));
  }
  if (path.has_parent_path() && path.parent_path() != path) {
    if (auto made = createDirectories(path.parent_path(), mode); !made) return made;
  }
  if (::mkdir(path.c_str(), mode) == 0 || errno == EEXIST) return {};
  return systemError();
}

}  // namespace vesko
