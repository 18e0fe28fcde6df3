#include "platform/linux/desktop_entries.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "base/file.h"
#include "base/text.h"

namespace vesko {
namespace {

constexpr std::string_view suffix = ".desktop";
constexpr int maxDepth = 4;

std::string valueOf(const Environment& environment, std::string_view name,
                    std::string_view otherwise = {}) {
  const auto found = environment.find(name);
  return found == environment.end() || found->second.empty() ? std::string(otherwise)
                                                             : found->second;
}

bool isProgram(const std::filesystem::path& path) {
  struct stat info{};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
         ::access(path.c_str(), X_OK) == 0;
}

bool contains(const std::vector<std::string>& texts, const std::vector<std::string>& some) {
  return std::ranges::any_of(
      some, [&texts](const auto& each) { return std::ranges::find(texts, each) != texts.end(); });
}

}  // namespace

std::optional<std::filesystem::path> findProgram(const std::string& program,
                                                 const Environment& environment) {
  if (program.find('/') != std::string::npos)
    return isProgram(program) ? std::optional(std::filesystem::path(program)) : std::nullopt;
  const std::string path = valueOf(environment, "PATH", "/usr/local/bin:/usr/bin:/bin");
  for (const auto folder : splitDroppingEmpty(path, ':')) {
    auto candidate = std::filesystem::path(folder) / program;
    if (isProgram(candidate)) return candidate;
  }
  return std::nullopt;
}

const InstalledEntry* DesktopCatalogue::find(std::string_view id) const {
  const auto named = [this](std::string_view wanted) -> const InstalledEntry* {
    const auto found = std::ranges::lower_bound(entries_, wanted, {}, &InstalledEntry::id);
    return found != entries_.end() && found->id == wanted ? &*found : nullptr;
  };
  const InstalledEntry* const exact = named(id);
  if (exact || !id.ends_with(suffix)) return exact;
  return named(id.substr(0, id.size() - suffix.size()));
}

const InstalledEntry* DesktopCatalogue::findFile(const std::filesystem::path& file) const {
  const auto found = std::ranges::find(entries_, file, &InstalledEntry::file);
  return found == entries_.end() ? nullptr : &*found;
}

DesktopEntries::DesktopEntries(Environment environment) : environment_(std::move(environment)) {
  const std::string home = valueOf(environment_, "HOME");
  std::string folders =
      valueOf(environment_, "XDG_DATA_HOME", home.empty() ? std::string() : home + "/.local/share");
  folders += ':' + valueOf(environment_, "XDG_DATA_DIRS", "/usr/local/share:/usr/share");
  for (const auto folder : splitDroppingEmpty(folders, ':')) {
    if (folder.starts_with('/')) folders_.push_back(std::filesystem::path(folder) / "applications");
  }
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const std::string locale = valueOf(environment_, variable);
    if (locale.empty()) continue;
    localeSuffixes_ = vesko::localeSuffixes(locale);
    break;
  }
  const std::string desktops = valueOf(environment_, "XDG_CURRENT_DESKTOP");
  for (const auto desktop : splitDroppingEmpty(desktops, ':')) desktops_.emplace_back(desktop);
}

void DesktopEntries::collect(const std::filesystem::path& folder, const std::string& prefix,
                             int depth, std::vector<File>& found) const {
  std::error_code error;
  for (std::filesystem::directory_iterator entries(folder, error), end; !error && entries != end;
       entries.increment(error)) {
    const std::filesystem::path& path = entries->path();
    const std::string name = path.filename().native();
    struct stat info{};
    if (found.size() >= maxFiles || ::stat(path.c_str(), &info) != 0) continue;
    if (S_ISDIR(info.st_mode)) {
      if (depth < maxDepth) collect(path, prefix + name + '-', depth + 1, found);
    } else if (S_ISREG(info.st_mode) && name.ends_with(suffix) && name.size() > suffix.size()) {
      found.push_back({.id = prefix + name.substr(0, name.size() - suffix.size()),
                       .path = path,
                       .modified = info.st_mtim.tv_sec * 1'000'000'000 + info.st_mtim.tv_nsec,
                       .size = static_cast<std::uint64_t>(info.st_size),
                       .inode = info.st_ino});
    }
  }
}

std::vector<DesktopEntries::File> DesktopEntries::files() const {
  std::vector<File> found;
  for (const auto& folder : folders_) {
    const auto begin = static_cast<std::ptrdiff_t>(found.size());
    collect(folder, {}, 0, found);
    // Folders deliver their entries in any order.
    std::sort(found.begin() + begin, found.end(),
              [](const File& a, const File& b) { return a.path < b.path; });
  }
  return found;
}

std::shared_ptr<const DesktopCatalogue> DesktopEntries::read(const std::vector<File>& files) const {
  std::vector<InstalledEntry> entries;
  std::set<std::string> seen;
  for (const File& file : files) {
    // The first folder that has an id decides, also by hiding it.
    if (!seen.insert(file.id).second) continue;
    const auto text = readFile(file.path, maxFileBytes);
    auto entry = text ? parseDesktopEntry(*text, localeSuffixes_) : std::nullopt;
    if (!entry || entry->hidden) continue;
    if (!entry->tryExec.empty() && !findProgram(entry->tryExec, environment_)) continue;
    InstalledEntry installed{.id = file.id, .file = file.path};
    installed.command = commandOf(*entry, file.path).value_or(std::vector<std::string>{});
    if (installed.command.empty() && !entry->dbusActivatable) continue;
    installed.listed = !entry->noDisplay && !contains(entry->notShowIn, desktops_) &&
                       (entry->onlyShowIn.empty() || contains(entry->onlyShowIn, desktops_));
    installed.entry = std::move(*entry);
    entries.push_back(std::move(installed));
  }
  std::ranges::sort(entries, {}, &InstalledEntry::id);
  return std::make_shared<const DesktopCatalogue>(std::move(entries));
}

std::shared_ptr<const DesktopCatalogue> DesktopEntries::current() {
  auto found = files();
  const MutexLock lock(mutex_);
  if (!catalogue_ || found != files_) {
    catalogue_ = read(found);
    files_ = std::move(found);
  }
  return catalogue_;
}

}  // namespace vesko
