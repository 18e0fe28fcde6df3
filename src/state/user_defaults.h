// The user's persisted settings: a property list that is replaced atomically on every change.
// Main thread.
#pragma once

#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "base/property_list.h"

namespace vesko {

class UserDefaults {
 public:
  /// Reads the file at once. A missing file means no settings. One that cannot be read or parsed is
  /// moved aside (".damaged" is appended) so that the next write does not destroy it.
  explicit UserDefaults(std::filesystem::path file);

  /// What went wrong while reading, for the log; nothing when all was well.
  const std::optional<std::string>& loadProblem() const { return loadProblem_; }

  /// Null when the key is absent.
  const PropertyList* value(std::string_view key) const;
  /// False when the key is absent or no boolean.
  bool flag(std::string_view key) const;
  /// Nothing when the key is absent or no string.
  std::optional<std::string> text(std::string_view key) const;

  /// The change is on the disk when these return without an error; it holds for this run in any
  /// case. The error is a system message.
  std::expected<void, std::string> set(std::string_view key, PropertyList value);
  std::expected<void, std::string> remove(std::string_view key);

 private:
  std::expected<void, std::string> save() const;

  std::filesystem::path file_;
  PropertyList::Dictionary entries_;
  std::optional<std::string> loadProblem_;
};

}  // namespace vesko
