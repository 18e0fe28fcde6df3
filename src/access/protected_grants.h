// What the user has opened to the application beside the system's permissions, as the daemon is to
// see it.
#pragma once

#include <cstdint>
#include <optional>

namespace vesko {

/// A protected folder: picked by the user, and what came of it.
struct FolderGrant {
  bool granted = false;
  bool readable = false;  ///< the database in it can be read
  bool operator==(const FolderGrant&) const = default;
};

/// Any thread; may wait for a disk. The defaults say that there is none: the room that keeps the
/// user's picks overrides.
class ProtectedGrants {
 public:
  virtual ~ProtectedGrants() = default;
  virtual FolderGrant messages() { return {}; }
  virtual FolderGrant notes() { return {}; }
  virtual bool photosLibrary() { return false; }

  /// As PermissionProbes::changeCount().
  virtual std::optional<std::uint64_t> changeCount() { return 0; }
};

}  // namespace vesko
