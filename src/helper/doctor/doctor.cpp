#include "helper/doctor/doctor.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "helper/doctor/place.h"
#include "helper/local_socket.h"

namespace vesko {
namespace {

constexpr std::chrono::seconds checkTime{5};

struct Report {
  bool ok = false;
  std::vector<Finding> checks;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("ok", &Report::ok), json::field("checks", &Report::checks)};
  }
};

struct Look {
  std::string_view word;
  std::string_view color;  ///< SGR parameter (ECMA-48)
};

Look lookOf(CheckStatus status) {
  switch (status) {
    case CheckStatus::ok:
      return {"ok", "32"};
    case CheckStatus::warning:
      return {"warning", "33"};
    case CheckStatus::missing:
      return {"missing", "31"};
    case CheckStatus::unknown:
      break;
  }
  return {"unknown", "2"};
}

/// https://no-color.org
bool wantsColor() {
  const char* refused = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  return ::isatty(STDOUT_FILENO) && !(refused && *refused) && terminal &&
         std::string_view(terminal) != "dumb";
}

std::string counted(std::ptrdiff_t count, std::string_view one, std::string_view more) {
  return fmt::format("{} {}", count, count == 1 ? one : more);
}

std::string readable(const std::vector<Finding>& findings, bool color) {
  std::size_t width = 0;
  for (const Finding& finding : findings) width = std::max(width, finding.id.size());
  std::string text;
  for (const Finding& finding : findings) {
    const Look look = lookOf(finding.status);
    std::string name = finding.id;
    std::ranges::replace(name, '_', ' ');
    const std::string word = fmt::format("{:<7}", look.word);
    text += fmt::format("{}  {:<{}}  {}\n",
                        color ? fmt::format("\033[{}m{}\033[0m", look.color, word) : word, name,
                        width, finding.summary);
    if (finding.status != CheckStatus::ok && !finding.advice.empty())
      text += fmt::format("{:>{}}{}\n", "", width + 11, finding.advice);
  }
  const auto count = [&](CheckStatus status) {
    return std::ranges::count(findings, status, &Finding::status);
  };
  const auto missing = count(CheckStatus::missing);
  const auto warnings = count(CheckStatus::warning);
  text += missing == 0
              ? "\nEverything that is needed is there"
              : "\n" + counted(missing, "needed thing is", "needed things are") + " missing";
  if (warnings > 0) text += "; " + counted(warnings, "warning", "warnings");
  return text + ".\n";
}

DoctorPlace placeOf(CommandSession& session) {
  const CommandEnvironment& environment = session.environment();
  const auto state = session.stateDirectory();
  std::vector<Directories> candidates;
  if (environment.bundle) {
    candidates.push_back(Directories::under(homeDirectory(), environment.bundle->identifier()));
  } else {
    const std::string release(releaseBundleIdentifier);
    for (const std::string& identifier : {release, release + ".dev"})
      candidates.push_back(Directories::under(homeDirectory(), identifier));
  }
  const auto found = std::ranges::find(candidates, state, &Directories::state);
  Directories directories = found == candidates.end() ? candidates.front() : *found;
  directories.state = state;
  return {.version = environment.version,
          .bundle = environment.bundle,
          .directories = directories,
          .socket = session.invocation().value("socket").value_or(state / localSocketName),
          .system = environment.doctor,
          .consents = environment.consents ? environment.consents(state) : nullptr};
}

}  // namespace

int doctor(CommandSession& session) {
  const auto bound = session.timeout(checkTime);
  if (!bound) return bound.error();
  const DoctorPlace place = placeOf(session);
  std::vector<Check> checks = companionChecks(place);
  for (auto& more :
       {place.system.checks ? place.system.checks() : std::vector<Check>(), userChecks(place)})
    checks.insert(checks.end(), more.begin(), more.end());

  Report report{.checks = runChecks(checks, *bound)};
  report.ok = std::ranges::none_of(
      report.checks, [](const Finding& f) { return f.status == CheckStatus::missing; });
  const int printed = session.print(session.json() ? json::encode(report).value_or("null") + "\n"
                                                   : readable(report.checks, wantsColor()));
  return printed != exitOk ? printed : report.ok ? exitOk : exitFailed;
}

}  // namespace vesko
