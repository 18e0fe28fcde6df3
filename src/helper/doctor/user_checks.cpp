#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/file.h"
#include "base/property_list.h"
#include "base/unique_fd.h"
#include "helper/command_session.h"
#include "helper/doctor/place.h"

namespace vesko {
namespace {

namespace fs = std::filesystem;

struct ConsentUse {
  std::string_view consent;
  std::string_view use;
  bool needed;  ///< little works without it; the others are the user's to leave out
};

constexpr ConsentUse uses[] = {
    {"accessibility", "to see and operate applications", true},
    {"screen_recording", "to take pictures of the screen", true},
    {"photos", "to fetch photos", false},
    {"messages_automation", "to work with messages", false},
    {"notes_automation", "to work with notes", false},
    {"contacts", "to hand over contacts", false},
};

ConsentUse useOf(std::string_view consent) {
  for (const ConsentUse& use : uses) {
    if (use.consent == consent) return use;
  }
  return {consent, "for a part of its work", false};
}

std::vector<Finding> consents(const DoctorPlace& place) {
  if (!place.consents) return {};
  std::vector<Finding> findings;
  if (const std::string problem = place.consents->problem(); !problem.empty())
    findings.push_back({.id = "consent_file",
                        .status = CheckStatus::missing,
                        .summary = "no answer in it counts: " + problem,
                        .advice =
                            "Give them anew with veskoctl consent grant; the old file is kept "
                            "beside the new one."});
  for (const auto& [consent, state] : place.consents->list()) {
    const ConsentUse use = useOf(consent);
    const bool granted = state == consentGranted;
    const char* answer = granted ? "granted" : state == consentDenied ? "denied" : "not asked";
    findings.push_back(
        {.id = "consent_" + consent,
         .status = granted || !use.needed ? CheckStatus::ok : CheckStatus::missing,
         .summary = fmt::format("{}: {}", answer, use.use),
         .advice = granted
                       ? ""
                       : fmt::format("To allow it: veskoctl consent grant {}, or veskoctl privacy",
                                     consent)});
  }
  return findings;
}

Finding directory(std::string id, const fs::path& path, mode_t forbidden) {
  Finding finding{.id = std::move(id), .status = CheckStatus::missing};
  struct stat info{};
  if (::stat(path.c_str(), &info) != 0) {
    const bool absent = errno == ENOENT;
    finding.summary = fmt::format("{}: {}", path.native(), std::strerror(errno));
    finding.status = absent ? CheckStatus::unknown : CheckStatus::missing;
    finding.advice = absent ? "The companion makes it when it starts." : "Make it accessible.";
  } else if (!S_ISDIR(info.st_mode)) {
    finding.summary = path.native() + " is no folder";
    finding.advice = "Move it away; the companion makes the folder when it starts.";
  } else if (info.st_uid != ::geteuid()) {
    finding.summary = fmt::format("{} belongs to user {}", path.native(), info.st_uid);
    finding.advice = "Make it yours: was the companion once started as another user?";
  } else if (::faccessat(AT_FDCWD, path.c_str(), R_OK | W_OK | X_OK, AT_EACCESS) != 0) {
    finding.summary = fmt::format("{} cannot be written: {}", path.native(), std::strerror(errno));
    finding.advice = fmt::format("chmod u+rwx \"{}\"", path.native());
  } else if ((info.st_mode & forbidden) != 0) {
    finding.status = CheckStatus::warning;
    finding.summary =
        fmt::format("{} is open to other users (mode {:04o})", path.native(), info.st_mode & 0777u);
    finding.advice = fmt::format("chmod go-rwx \"{}\"", path.native());
  } else {
    finding.status = CheckStatus::ok;
    finding.summary = path.native();
  }
  return finding;
}

Finding settings(const fs::path& file) {
  Finding finding{.id = "settings", .status = CheckStatus::warning};
  finding.advice = "The companion starts without them and keeps the file beside a new one.";
  const auto bytes = readFile(file, PropertyList::maxBytes);
  if (!bytes && bytes.error() == std::errc::no_such_file_or_directory) {
    finding = {.id = "settings", .status = CheckStatus::ok, .summary = "none kept yet"};
  } else if (!bytes) {
    finding.summary = fmt::format("{}: {}", file.native(), bytes.error().message());
  } else if (const auto list = PropertyList::parse(*bytes); !list || !list->dictionary()) {
    finding.summary = file.native() + " is damaged";
  } else {
    finding = {.id = "settings", .status = CheckStatus::ok, .summary = file.native()};
  }
  return finding;
}

std::vector<Finding> files(const DoctorPlace& place) {
  return {directory("state_directory", place.directories.state, 077),
          directory("log_directory", place.directories.logs, 077),
          settings(place.directories.defaultsFile)};
}

/// As the log writes it, in UTC, so that texts compare as times do.
std::string logDate(std::time_t time) {
  std::tm utc{};
  ::gmtime_r(&time, &utc);
  return fmt::format("[{:04}-{:02}-{:02} {:02}:{:02}:{:02} +0000] ", utc.tm_year + 1900,
                     utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
}

std::vector<Finding> logErrors(const DoctorPlace& place) {
  constexpr std::size_t maxLogBytes = 8 << 20;
  constexpr std::time_t day = 24 * 60 * 60;
  Finding finding{.id = "log_errors", .status = CheckStatus::ok};
  const auto process = place.companion();
  const char* period = process ? "since the companion started" : "within a day";
  const std::string from = logDate(process ? process->started : std::time(nullptr) - day);
  const auto file = place.directories.logs / "app.log";
  const auto log = readFile(file, maxLogBytes);
  if (!log && log.error() != std::errc::no_such_file_or_directory) {
    finding.status = CheckStatus::warning;
    finding.summary = fmt::format("{}: {}", file.native(), log.error().message());
    return {finding};
  }
  std::size_t count = 0;
  std::string_view last;
  std::string_view rest = log ? std::string_view(*log) : std::string_view();
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    if (line.size() <= from.size() || line < from ||
        !line.substr(from.size()).starts_with("ERROR "))
      continue;
    ++count;
    last = line;
  }
  finding.summary = count == 0 ? fmt::format("none {}", period)
                               : fmt::format("{} {}; the last: {}", count, period, last);
  if (count > 0) {
    finding.status = CheckStatus::warning;
    finding.advice = "More in " + file.native();
  }
  return {finding};
}

std::vector<Finding> photosLibrary(const DoctorPlace& place) {
  bool wanted = false;
  if (place.consents) {
    for (const auto& [consent, state] : place.consents->list())
      wanted = wanted || (consent == "photos" && state == consentGranted);
  }
  const auto library = place.directories.home / "Pictures/Photos Library.photoslibrary";
  const auto catalogue = library / "database/Photos.sqlite";
  Finding finding{.id = "photos_library",
                  .status = wanted ? CheckStatus::warning : CheckStatus::ok};
  constexpr std::string_view magic{"SQLite format 3\0", 16};
  std::array<char, magic.size()> head{};
  const UniqueFd file(::open(catalogue.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  const int openError = errno;
  if (struct stat info{}; ::stat(library.c_str(), &info) != 0 && errno == ENOENT) {
    finding.summary = "none at " + library.native();
    finding.advice = "Photos can be fetched from a library in that place.";
  } else if (!file) {
    finding.summary = fmt::format("{}: {}", catalogue.native(), std::strerror(openError));
    finding.advice = "Make the library readable.";
  } else if (::read(file.get(), head.data(), head.size()) != std::ssize(head) ||
             std::string_view(head.data(), head.size()) != magic) {
    finding.summary = catalogue.native() + " is no catalogue";
    finding.advice = "Restore the library from a backup.";
  } else if (::access((library / "originals").c_str(), R_OK | X_OK) != 0) {
    finding.summary = fmt::format("{}: {}", (library / "originals").native(), std::strerror(errno));
    finding.advice = "Make the library readable.";
  } else {
    finding.status = CheckStatus::ok;
    finding.summary = library.native();
  }
  return {finding};
}

}  // namespace

std::vector<Check> userChecks(const DoctorPlace& place) {
  const auto bound = [&place](std::vector<Finding> (*check)(const DoctorPlace&)) {
    return [&place, check] { return check(place); };
  };
  return {{"consent_file", CheckStatus::missing, "", bound(consents)},
          {"state_directory", CheckStatus::missing, "", bound(files)},
          {"log_errors", CheckStatus::warning, "", bound(logErrors)},
          {"photos_library", CheckStatus::warning, "", bound(photosLibrary)}};
}

}  // namespace vesko
