// An application bundle on disk: its property list, its resources and who it is. Any thread.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "base/property_list.h"

namespace vesko {

class Bundle {
 public:
  /// The bundle at `path` (ending in ".app"). A missing or broken Info.plist leaves a bundle
  /// without an identifier and without strings.
  static Bundle at(std::filesystem::path path);

  /// The innermost bundle that holds `file`; nothing when no ".app" folder does.
  static std::optional<Bundle> containing(const std::filesystem::path& file);

  const std::filesystem::path& path() const { return path_; }
  std::optional<std::string> identifier() const { return infoString("CFBundleIdentifier"); }
  /// Nothing when the key is absent or not a string.
  std::optional<std::string> infoString(std::string_view key) const;
  /// Contents/Resources/`name`, when it exists.
  std::optional<std::filesystem::path> resource(std::string_view name) const;

 private:
  explicit Bundle(std::filesystem::path path);

  std::filesystem::path path_;
  PropertyList info_;
};

}  // namespace vesko
