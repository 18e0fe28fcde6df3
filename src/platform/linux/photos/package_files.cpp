#include "platform/linux/photos/package_files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "base/page_memory.h"

namespace vesko {
namespace {

std::error_code lastError() {
  return {errno, std::generic_category()};
}

std::unexpected<std::error_code> refused() {
  return std::unexpected(std::make_error_code(std::errc::permission_denied));
}

bool isName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && !name.contains('/') &&
         !name.contains('\0');
}

/// Of a name that isName(). Never waits for a device or a pipe.
std::expected<UniqueFd, std::error_code> openIn(int folder, std::string_view name, int flags) {
  UniqueFd fd(::openat(folder, std::string(name).c_str(),
                       O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | flags));
  if (fd) return fd;
  return errno == ELOOP ? refused() : std::unexpected(lastError());
}

}  // namespace

std::expected<PackageFolder, std::error_code> PackageFolder::open(
    const std::filesystem::path& package) {
  UniqueFd fd(::open(package.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return std::unexpected(lastError());
  return PackageFolder(std::move(fd));
}

std::expected<PackageFolder, std::error_code> PackageFolder::folder(std::string_view name) const {
  if (!isName(name)) return refused();
  auto fd = openIn(fd_.get(), name, O_DIRECTORY);
  if (!fd) return std::unexpected(fd.error());
  return PackageFolder(std::move(*fd));
}

std::expected<UniqueFd, std::error_code> PackageFolder::file(std::string_view path) const {
  if (const auto slash = path.find('/'); slash != std::string_view::npos) {
    const auto next = folder(path.substr(0, slash));
    if (!next) return std::unexpected(next.error());
    return next->file(path.substr(slash + 1));
  }
  if (!isName(path)) return refused();
  auto fd = openIn(fd_.get(), path, 0);
  if (!fd) return fd;
  struct stat info{};
  if (::fstat(fd->get(), &info) != 0) return std::unexpected(lastError());
  if (!S_ISREG(info.st_mode)) return refused();
  return fd;
}

std::string PackageFolder::stablePath() const {
  return "/proc/self/fd/" + std::to_string(fd_.get());
}

std::expected<PhotoBytes, std::error_code> readWhole(const UniqueFd& file, std::size_t maxBytes) {
  struct stat info{};
  if (::fstat(file.get(), &info) != 0) return std::unexpected(lastError());
  const auto size = static_cast<std::size_t>(info.st_size);
  if (size > maxBytes) return std::unexpected(std::make_error_code(std::errc::file_too_large));
  if (size == 0) return PhotoBytes{};
  const auto memory = std::make_shared<PageMemory>(size);
  if (!*memory) return std::unexpected(std::make_error_code(std::errc::not_enough_memory));
  for (std::size_t done = 0; done < size;) {
    const ssize_t count =
        ::pread(file.get(), memory->data() + done, size - done, static_cast<off_t>(done));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::unexpected(lastError());
    if (count == 0) return std::unexpected(std::make_error_code(std::errc::io_error));
    done += static_cast<std::size_t>(count);
  }
  return PhotoBytes{{memory->data(), size}, memory};
}

}  // namespace vesko
