// The application's entry on a Linux desktop: makes the back end's services and runs the main loop.

#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "app/companion.h"
#include "base/main_thread.h"
#include "platform/linux/consent_store.h"
#include "platform/linux/glib_main_loop.h"
#include "platform/linux/host_names.h"
#include "platform/linux/linux_process_host.h"
#include "platform/linux/x11_pasteboard.h"
#include "platform/linux/x11_screen_source.h"
#include "platform/linux/xtest_input.h"

extern char** environ;

namespace vesko {
namespace {

Environment ownEnvironment() {
  Environment environment;
  for (char** entry = environ; entry && *entry; ++entry) {
    const std::string_view text(*entry);
    const auto equals = text.find('=');
    if (equals != std::string_view::npos)
      environment.emplace(text.substr(0, equals), text.substr(equals + 1));
  }
  return environment;
}

// Every connection of the control server is a descriptor, and a thousand of them may idle.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

int fail(std::string_view message) {
  fmt::print(stderr, "VeskoCompanion: {}\n", message);
  return 1;
}

int run() {
  assertMainThread();
  const auto home = homeDirectory();
  if (home.empty()) return fail("no home directory: set HOME");
  std::error_code error;
  const auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
  const auto bundle = Bundle::containing(executable);
  if (!bundle)
    return fail("started outside its application bundle; start it from \"Vesko Companion.app\"");

  std::signal(SIGPIPE, SIG_IGN);
  raiseDescriptorLimit();

  GlibMainLoop loop;
  const auto directories = Directories::under(home, bundle->identifier());
  LinuxProcessHost processes;
  LinuxHostNames hostNames;
  ConsentStore consents(directories.state / "consents.plist");
  LinuxPermissionProbes permissions(consents);
  XTestInput input;
  X11Pasteboard pasteboard;
  X11ScreenSource screen;

  const auto companion = Companion::create({.loop = loop,
                                            .processes = processes,
                                            .hostNames = hostNames,
                                            .permissions = permissions,
                                            .input = input,
                                            .pasteboard = pasteboard,
                                            .screen = screen},
                                           {.bundle = *bundle,
                                            .directories = directories,
                                            .executable = executable,
                                            .environment = ownEnvironment(),
                                            .processId = ::getpid()});

  if (!companion) {
    fmt::print(stderr, "VeskoCompanion: already running\n");
    return 0;
  }

  bool ending = false;
  const auto end = [&] {
    assertMainThread();
    if (std::exchange(ending, true)) return;
    companion->terminate([&loop] { loop.quit(); });
  };
  const UnixSignal terminated(SIGTERM, end);
  const UnixSignal interrupted(SIGINT, end);

  companion->start();
  loop.run();
  return 0;
}

}  // namespace
}  // namespace vesko

int main() {
  vesko::adoptMainThread();
  return vesko::run();
}
