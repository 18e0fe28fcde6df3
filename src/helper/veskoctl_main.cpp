#include <signal.h>

#include <cstdlib>

#include "base/bundle.h"
#include "base/directories.h"
#include "helper/commands.h"
#include "helper/consents.h"
#include "helper/doctor/system.h"
#include "helper/helper_system.h"
#include "helper/local_socket.h"

namespace vesko {
namespace {

std::vector<std::filesystem::path> socketCandidates() {
  if (const char* state = std::getenv("VESKOKIT_STATE_DIR"); state && *state)
    return {std::filesystem::path(state) / localSocketName};
  const auto home = homeDirectory();
  if (home.empty()) return {};
  const auto socketOf = [&](const std::optional<std::string>& identifier) {
    return Directories::under(home, identifier).state / localSocketName;
  };
  if (const auto bundle = Bundle::containing(ownExecutable()))
    return {socketOf(bundle->identifier())};
  // Outside of a bundle it serves whichever build is there.
  return {socketOf(std::string(releaseBundleIdentifier)),
          socketOf(std::string(releaseBundleIdentifier) + ".dev")};
}

}  // namespace
}  // namespace vesko

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  const std::vector<std::string> words(argv + (argc > 0 ? 1 : 0), argv + argc);
  return vesko::runVeskoctl(words, {.version = VESKO_VERSION,
                                    .sockets = vesko::socketCandidates(),
                                    .consents = vesko::desktopConsents(),
                                    .bundle = vesko::Bundle::containing(vesko::ownExecutable()),
                                    .doctor = vesko::doctorSystem()});
}
