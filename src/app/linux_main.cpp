// The application's entry on a Linux desktop: makes the back end's services and runs the main loop.

#include <fmt/format.h>
#include <linux/close_range.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "app/companion.h"
#include "base/main_thread.h"
#include "platform/linux/atspi_accessibility.h"
#include "platform/linux/consent_store.h"
#include "platform/linux/glib_main_loop.h"
#include "platform/linux/host_names.h"
#include "platform/linux/inherited_children.h"
#include "platform/linux/linux_applications.h"
#include "platform/linux/linux_permission_requests.h"
#include "platform/linux/linux_process_host.h"
#include "platform/linux/photos/photos_module.h"
#include "platform/linux/privacy_program.h"
#include "platform/linux/x11_pasteboard.h"
#include "platform/linux/x11_screen_source.h"
#include "platform/linux/x11_window_system.h"
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

/// Ends the companion at a signal, or in order to be started anew.
class Lifetime : public ApplicationLifetime {
 public:
  Lifetime(GlibMainLoop& loop, std::filesystem::path executable)
      : loop_(loop), executable_(std::move(executable)) {}

  void manage(Companion& companion) { companion_ = &companion; }

  std::expected<void, std::string> relaunch() override {
    if (::access(executable_.c_str(), X_OK) != 0)
      return std::unexpected(std::string(std::strerror(errno)));
    relaunching_ = true;
    loop_.post([this] { end(); });
    return {};
  }

  /// The user's wish: it holds also while a relaunch is under way.
  void quit() {
    relaunching_ = false;
    end();
  }

  bool relaunching() const { return relaunching_; }

 private:
  void end() {
    assertMainThread();
    if (std::exchange(ending_, true)) return;
    companion_->terminate([this] { loop_.quit(); });
  }

  GlibMainLoop& loop_;
  const std::filesystem::path executable_;
  Companion* companion_ = nullptr;
  bool ending_ = false;
  bool relaunching_ = false;
};

struct Result {
  int exitCode = 0;
  std::filesystem::path relaunch;  ///< the executable to go on as; empty for none
};

// In the same process, whose terminal, parent and number stay what they were: whoever waits for the
// companion or ends it by its number, a shell in the foreground or a session manager, notices
// nothing. Applications that were launched for the user go on. The instance lock was let go with
// the companion; should another instance take it now, that one has the new permission as well.
int goOnAs(const std::filesystem::path& executable, char** arguments) {
  ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
  ::execv(executable.c_str(), arguments);
  return fail(fmt::format("could not be started again: {}", std::strerror(errno)));
}

Result run() {
  assertMainThread();
  const auto home = homeDirectory();
  if (home.empty()) return {fail("no home directory: set HOME"), {}};
  std::error_code error;
  const auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
  const auto bundle = Bundle::containing(executable);
  if (!bundle)
    return {fail("started outside its application bundle; start it from \"Vesko Companion.app\""),
            {}};

  std::signal(SIGPIPE, SIG_IGN);
  raiseDescriptorLimit();

  GlibMainLoop loop;
  reapInheritedChildren();
  const auto directories = Directories::under(home, bundle->identifier());
  LinuxProcessHost processes;
  LinuxHostNames hostNames;
  ConsentStore consents(directories.state / "consents.plist");
  LinuxPermissionProbes permissions(consents);
  XTestInput input;
  X11Pasteboard pasteboard;
  X11ScreenSource screen;
  const auto environment = ownEnvironment();
  LinuxPermissionRequests permissionRequests(
      {.loop = loop,
       .processes = processes,
       .consents = consents,
       .program = bundle->path() / "Contents/Resources" / privacyProgram::name,
       .environment = environment});
  Lifetime lifetime(loop, executable);
  X11Sessions sessions;
  X11WindowSystem windows(sessions);
  AtspiAccessibility accessibility(sessions);
  LinuxApplications applications(loop, sessions, windows, environment);
  LinuxPhotos photos(bundle->path() / "Contents/PlugIns/VeskoPhotos.so",
                     [home] { return home / "Pictures/Photos Library.photoslibrary"; });

  const auto companion = Companion::create({.loop = loop,
                                            .processes = processes,
                                            .hostNames = hostNames,
                                            .permissions = permissions,
                                            .permissionRequests = permissionRequests,
                                            .application = lifetime,
                                            .input = input,
                                            .pasteboard = pasteboard,
                                            .screen = screen,
                                            .accessibility = accessibility,
                                            .applications = applications,
                                            .windows = windows,
                                            .photoLibrary = photos,
                                            .pictures = photos},
                                           {.bundle = *bundle,
                                            .directories = directories,
                                            .executable = executable,
                                            .environment = environment,
                                            .processId = ::getpid()});

  if (!companion) {
    fmt::print(stderr, "VeskoCompanion: already running\n");
    return {};
  }

  lifetime.manage(*companion);
  const UnixSignal terminated(SIGTERM, [&] { lifetime.quit(); });
  const UnixSignal interrupted(SIGINT, [&] { lifetime.quit(); });

  companion->start();
  loop.run();
  return {0, lifetime.relaunching() ? executable : std::filesystem::path()};
}

}  // namespace
}  // namespace vesko

int main(int, char** argv) {
  vesko::adoptMainThread();
  const auto [exitCode, relaunch] = vesko::run();
  return relaunch.empty() ? exitCode : vesko::goOnAs(relaunch, argv);
}
