// Desktop entries: the files that say how an application is called and started. Any thread.
//
// Reference: Desktop Entry Specification 1.5.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vesko {

/// An entry of the type Application.
struct DesktopEntry {
  std::string name = {};
  std::string localizedName = {};  ///< `name` where there is no better one
  std::string exec = {};
  std::string tryExec = {};
  std::string workingDirectory = {};
  std::string startupWmClass = {};
  std::vector<std::string> onlyShowIn = {};
  std::vector<std::string> notShowIn = {};
  bool hidden = false;     ///< counts as deleted
  bool noDisplay = false;  ///< not for menus
  bool terminal = false;
  bool dbusActivatable = false;
};

/// The suffixes of localised keys, best first, for a locale such as "de_AT.UTF-8@euro".
std::vector<std::string> localeSuffixes(std::string_view locale);

/// Nothing when the text is not UTF-8 or is no entry of an application. Lines that make no sense
/// are passed over.
std::optional<DesktopEntry> parseDesktopEntry(std::string_view text,
                                              const std::vector<std::string>& suffixes);

/// The command without files to open, at least one argument; nothing when the entry has none or
/// quotes it wrongly. `file` is the entry's own place.
std::optional<std::vector<std::string>> commandOf(const DesktopEntry& entry,
                                                  const std::filesystem::path& file);

}  // namespace vesko
