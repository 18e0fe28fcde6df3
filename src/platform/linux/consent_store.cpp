#include "platform/linux/consent_store.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <system_error>

#include "base/file.h"

namespace vesko {
namespace {

std::string systemText(int number) {
  return std::generic_category().message(number);
}

bool sameFile(const struct stat& a, const struct stat& b) {
  const auto sameTime = [](const timespec& x, const timespec& y) {
    return x.tv_sec == y.tv_sec && x.tv_nsec == y.tv_nsec;
  };
  // The change time moves with the mode and the owner too, which decide whether the file counts.
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         sameTime(a.st_mtim, b.st_mtim) && sameTime(a.st_ctim, b.st_ctim);
}

std::string untrusted(const struct stat& info) {
  if (!S_ISREG(info.st_mode)) return "not a regular file";
  if (info.st_uid != ::geteuid()) return "owned by another user";
  if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "writable by other users";
  return {};
}

std::expected<UniqueFd, std::string> lockBeside(const std::filesystem::path& file) {
  auto path = file;
  path += ".lock";
  UniqueFd lock(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock) return std::unexpected(systemText(errno));
  while (::flock(lock.get(), LOCK_EX) != 0) {
    if (errno != EINTR) return std::unexpected(systemText(errno));
  }
  return lock;
}

}  // namespace

ConsentStore::ConsentStore(std::filesystem::path file) : file_(std::move(file)) {}

std::expected<ConsentStore::Content, std::string> ConsentStore::load() const {
  Content content;
  content.file.reset(::open(file_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
  if (!content.file) {
    if (errno == ENOENT) return content;
    if (errno != ELOOP) return std::unexpected(systemText(errno));
    content.problem = "a symbolic link";
    return content;
  }
  const int fd = content.file.get();
  if (::fstat(fd, &content.identity) != 0) return std::unexpected(systemText(errno));
  content.problem = untrusted(content.identity);
  if (!content.problem.empty()) return content;
  // By descriptor, so that what was checked is what is read.
  const auto bytes = readFile(fmt::format("/proc/self/fd/{}", fd), PropertyList::maxBytes);
  if (!bytes && bytes.error() != std::errc::file_too_large)
    return std::unexpected(bytes.error().message());
  auto list = bytes ? PropertyList::parse(*bytes)
                    : std::expected<PropertyList, std::string>(std::unexpect, "too large");
  if (!list) {
    content.problem = "damaged: " + list.error();
  } else if (const auto* entries = list->dictionary()) {
    content.entries = *entries;
  } else {
    content.problem = "damaged: not a dictionary";
  }
  return content;
}

void ConsentStore::refresh() {
  struct stat now{};
  const bool exists = ::lstat(file_.c_str(), &now) == 0;
  if (exists && content_.file && sameFile(now, content_.identity)) return;
  auto loaded = load();
  Content content;
  if (loaded) {
    content = std::move(*loaded);
  } else {
    content.problem = std::move(loaded.error());
  }
  if (content.entries != content_.entries || content.problem != content_.problem) ++changes_;
  content_ = std::move(content);
}

std::uint64_t ConsentStore::changeCount() {
  const MutexLock lock(mutex_);
  refresh();
  return changes_;
}

ConsentState ConsentStore::state(Consent consent) {
  const MutexLock lock(mutex_);
  refresh();
  const auto found = content_.entries.find(json::wordOf(consent));
  const std::string* word = found == content_.entries.end() ? nullptr : found->second.text();
  for (const auto& [state, name] : json::EnumNames<ConsentState>::values) {
    if (word && *word == name) return state;
  }
  return ConsentState::notDetermined;
}

std::string ConsentStore::problem() {
  const MutexLock lock(mutex_);
  refresh();
  return content_.problem;
}

std::expected<void, std::string> ConsentStore::set(Consent consent, ConsentState state) {
  // Without the mutex: probes need not wait for the disk or for another process's turn.
  if (auto made = createDirectories(file_.parent_path(), 0700); !made)
    return std::unexpected(made.error().message());
  const auto turn = lockBeside(file_);
  if (!turn) return std::unexpected(turn.error());
  auto content = load();
  if (!content) return std::unexpected(content.error());
  if (!content->problem.empty()) {
    auto aside = file_;
    aside += ".damaged";
    if (::rename(file_.c_str(), aside.c_str()) != 0) return std::unexpected(systemText(errno));
  }
  const std::string key(json::wordOf(consent));
  if (state == ConsentState::notDetermined) {
    content->entries.erase(key);
  } else {
    content->entries.insert_or_assign(key, std::string(json::wordOf(state)));
  }
  const auto xml = PropertyList(std::move(content->entries)).toXml();
  if (auto replaced = replaceFile(file_, xml, 0600); !replaced)
    return std::unexpected(replaced.error().message());
  return {};
}

bool LinuxPermissionProbes::accessibilityTrusted() {
  return store_.state(Consent::accessibility) == ConsentState::granted;
}

bool LinuxPermissionProbes::screenCaptureAllowed() {
  return store_.state(Consent::screenRecording) == ConsentState::granted;
}

PhotosPermission LinuxPermissionProbes::photos() {
  switch (store_.state(Consent::photos)) {
    case ConsentState::granted:
      return PhotosPermission::full;
    case ConsentState::denied:
      return PhotosPermission::denied;
    case ConsentState::notDetermined:
      break;
  }
  return PhotosPermission::notDetermined;
}

AutomationStatus LinuxPermissionProbes::automation(AutomationTarget target) {
  using Kind = AutomationStatus::Kind;
  switch (store_.state(target == AutomationTarget::messages ? Consent::messagesAutomation
                                                            : Consent::notesAutomation)) {
    case ConsentState::granted:
      return {Kind::granted};
    case ConsentState::denied:
      return {Kind::denied};
    case ConsentState::notDetermined:
      break;
  }
  return {Kind::notDetermined};
}

ContactsPermission LinuxPermissionProbes::contacts() {
  switch (store_.state(Consent::contacts)) {
    case ConsentState::granted:
      return ContactsPermission::granted;
    case ConsentState::denied:
      return ContactsPermission::denied;
    case ConsentState::notDetermined:
      break;
  }
  return ContactsPermission::notDetermined;
}

}  // namespace vesko
