// Finds an asset's local identifier whatever the letter case, with or without what follows its
// first slash. Any thread.
#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/mutex.h"
#include "platform/photo_library.h"

namespace vesko {

/// Reads the library once, at the first question; a failure is asked for again. Kept compact, since
/// a library may hold a hundred thousand assets.
class AssetIdentifierIndex {
 public:
  /// Callers wait for one another while the library is read.
  PhotoLibrary::Result<std::optional<std::string>> find(PhotoLibrary& library,
                                                        std::string_view identifier);

 private:
  PhotoLibrary::Result<void> read(PhotoLibrary& library) VESKO_REQUIRES(mutex_);
  std::string_view at(std::uint32_t begin) const VESKO_REQUIRES(mutex_);

  Mutex mutex_;
  bool complete_ VESKO_GUARDED_BY(mutex_) = false;
  /// Identifiers one after another, each with a zero at its end.
  std::string texts_ VESKO_GUARDED_BY(mutex_);
  /// Where they begin, in the order of their lower-cased texts, equal ones as they were seen.
  std::vector<std::uint32_t> order_ VESKO_GUARDED_BY(mutex_);
};

}  // namespace vesko
