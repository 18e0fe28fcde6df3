// Whole-file reading and atomic replacement. Any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <expected>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

namespace vesko {

/// Fails with std::errc::file_too_large above `maxBytes`, and with the system's error otherwise.
std::expected<std::string, std::error_code> readFile(const std::filesystem::path& path,
                                                     std::size_t maxBytes);

/// Writes a temporary file beside `path`, flushes it to the disk and renames it over `path`: a
/// crash at any moment leaves the old content or the new, never less. On failure the old file is
/// untouched and the temporary one is gone.
std::expected<void, std::error_code> replaceFile(const std::filesystem::path& path,
                                                 std::string_view content, mode_t mode);

/// Writes into what is there, a device or a pipe, and leaves it what it is.
std::expected<void, std::error_code> writeInto(const std::filesystem::path& path,
                                               std::string_view content);

/// Creates the directory with its parents; new ones get `mode`.
std::expected<void, std::error_code> createDirectories(const std::filesystem::path& path,
                                                       mode_t mode);

}  // namespace vesko
