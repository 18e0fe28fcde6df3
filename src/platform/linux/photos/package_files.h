// Files of a package by names that nobody vouches for: no name leads out of the package, and no
// symbolic link in it is followed. Any thread.
#pragma once

#include <expected>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <string_view>
#include <system_error>

#include "base/unique_fd.h"
#include "platform/photo_library.h"

namespace vesko {

class PackageFolder {
 public:
  using Failure = std::error_code;

  /// The package itself may lie behind symbolic links: its path is the user's own choice.
  static std::expected<PackageFolder, Failure> open(const std::filesystem::path& package);

  /// A folder directly in this one.
  std::expected<PackageFolder, Failure> folder(std::string_view name) const;
  /// A regular file below this folder, opened for reading. `path` is of names between slashes;
  /// std::errc::permission_denied when one of them is none, or is a link.
  std::expected<UniqueFd, Failure> file(std::string_view path) const;

  /// A path of this folder that stays true when the package is moved, as long as this lives.
  std::string stablePath() const;

 private:
  explicit PackageFolder(UniqueFd fd) : fd_(std::move(fd)) {}

  UniqueFd fd_;
};

/// The whole file. std::errc::file_too_large above `maxBytes`.
std::expected<PhotoBytes, std::error_code> readWhole(const UniqueFd& file, std::size_t maxBytes);

}  // namespace vesko
