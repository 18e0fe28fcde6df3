// The user's own answers to what this application may do. The desktop keeps no permissions per
// application, so they are kept here: a property list that maps each consent's word to its state.
//
// Only a regular file that its user owns and nobody else may write counts; anything else, and a
// damaged file, grants nothing. Every probe looks at the file's identity, so that a change made by
// another process holds at once. Any thread.
#pragma once

#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "base/json_record.h"
#include "base/mutex.h"
#include "base/property_list.h"
#include "base/unique_fd.h"
#include "platform/linux/privacy_window_mark.h"
#include "platform/permissions.h"

namespace vesko {

enum class Consent {
  accessibility,
  screenRecording,
  messagesAutomation,
  notesAutomation,
  photos,
  contacts,
};

template <>
struct json::EnumNames<Consent> {
  static constexpr std::array values{
      std::pair{Consent::accessibility, std::string_view("accessibility")},
      std::pair{Consent::screenRecording, std::string_view("screen_recording")},
      std::pair{Consent::messagesAutomation, std::string_view("messages_automation")},
      std::pair{Consent::notesAutomation, std::string_view("notes_automation")},
      std::pair{Consent::photos, std::string_view("photos")},
      std::pair{Consent::contacts, std::string_view("contacts")}};
};

enum class ConsentState { notDetermined, granted, denied };

template <>
struct json::EnumNames<ConsentState> {
  static constexpr std::array values{
      std::pair{ConsentState::notDetermined, std::string_view("not_determined")},
      std::pair{ConsentState::granted, std::string_view("granted")},
      std::pair{ConsentState::denied, std::string_view("denied")}};
};

class ConsentStore {
 public:
  /// The file and its folder are made by the first set().
  explicit ConsentStore(std::filesystem::path file);

  const std::filesystem::path& file() const { return file_; }

  /// One stat() as long as the file has not changed.
  ConsentState state(Consent consent);

  /// Moves when the answers differ from those of the call before. One stat() when they do not.
  std::uint64_t changeCount();

  /// Why the file's content does not count, for people to read; empty when it does.
  std::string problem();

  /// Replaces the file atomically (mode 0600, new folders 0700) and leaves every other entry as it
  /// is. Writers of all processes take turns on a lock file beside it. A file whose content does
  /// not count is first renamed to "<file>.damaged", over an earlier one. The error is a text for
  /// people; nothing has changed then.
  std::expected<void, std::string> set(Consent consent, ConsentState state);

 private:
  struct Content {
    PropertyList::Dictionary entries;
    std::string problem;  ///< the entries are empty then
    // Held open so that the system cannot give the file's identity to a later one.
    UniqueFd file;
    struct stat identity{};
  };

  std::expected<Content, std::string> load() const;
  void refresh() VESKO_REQUIRES(mutex_);

  const std::filesystem::path file_;
  Mutex mutex_;
  Content content_ VESKO_GUARDED_BY(mutex_);
  std::uint64_t changes_ VESKO_GUARDED_BY(mutex_) = 0;
};

/// The probes that the tools ask before they act, answered from the store, which must outlive them.
class LinuxPermissionProbes : public PermissionProbes {
 public:
  explicit LinuxPermissionProbes(ConsentStore& store) : store_(store), mark_(store.file()) {}

  bool accessibilityTrusted() override;
  bool screenCaptureAllowed() override;
  PhotosPermission photos() override;
  AutomationStatus automation(AutomationTarget target) override;
  ContactsPermission contacts() override;
  std::optional<std::uint64_t> changeCount() override { return store_.changeCount(); }
  bool privacyWindowShown() override { return mark_.shown(); }

 private:
  ConsentStore& store_;
  const PrivacyWindowMark mark_;
};

}  // namespace vesko
