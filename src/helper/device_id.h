// The identity of this device: made once, then kept in the state directory.
#pragma once

#include <expected>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace vesko {

/// Reads the file "device-id", or makes it when it is missing or damaged. A file that cannot be
/// read or written is an error and stays as it is.
std::expected<std::string, std::string> loadDeviceId(
    const std::filesystem::path& stateDirectory, const std::function<void(std::string_view)>& log);

}  // namespace vesko
