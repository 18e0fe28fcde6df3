// The applications that are installed for this user: all desktop entries of the data directories,
// read anew when one of their files changed.
//
// Reference: XDG Base Directory Specification 0.8; desktop file ids in the Desktop Entry
// Specification 1.5.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/mutex.h"
#include "platform/linux/desktop_entry.h"
#include "platform/process_host.h"

namespace vesko {

struct InstalledEntry {
  std::string id = {};  ///< without ".desktop"
  std::filesystem::path file = {};
  DesktopEntry entry = {};
  std::vector<std::string> command = {};  ///< empty when it can only be started over D-Bus
  bool listed = true;                     ///< in menus of this desktop
};

/// Ordered by id.
class DesktopCatalogue {
 public:
  explicit DesktopCatalogue(std::vector<InstalledEntry> entries) : entries_(std::move(entries)) {}

  const std::vector<InstalledEntry>& entries() const { return entries_; }
  /// With or without ".desktop". Only compares: a text that is no id finds nothing.
  const InstalledEntry* find(std::string_view id) const;
  const InstalledEntry* findFile(const std::filesystem::path& file) const;

 private:
  std::vector<InstalledEntry> entries_;
};

/// The file that a search of PATH finds for a program, or the program itself when it is a path.
std::optional<std::filesystem::path> findProgram(const std::string& program,
                                                 const Environment& environment);

/// Any thread.
class DesktopEntries {
 public:
  static constexpr std::size_t maxFiles = 10'000;
  static constexpr std::size_t maxFileBytes = 1 << 20;

  explicit DesktopEntries(Environment environment);

  std::shared_ptr<const DesktopCatalogue> current();

 private:
  struct File {
    std::string id;
    std::filesystem::path path;
    std::int64_t modified = 0;  ///< nanoseconds
    std::uint64_t size = 0;
    std::uint64_t inode = 0;
    bool operator==(const File&) const = default;
  };

  std::vector<File> files() const;
  void collect(const std::filesystem::path& folder, const std::string& prefix, int depth,
               std::vector<File>& found) const;
  std::shared_ptr<const DesktopCatalogue> read(const std::vector<File>& files) const;

  const Environment environment_;
  std::vector<std::filesystem::path> folders_;
  std::vector<std::string> localeSuffixes_;
  std::vector<std::string> desktops_;
  Mutex mutex_;
  std::vector<File> files_ VESKO_GUARDED_BY(mutex_);
  std::shared_ptr<const DesktopCatalogue> catalogue_ VESKO_GUARDED_BY(mutex_);
};

}  // namespace vesko
