#include "platform/linux/linux_applications.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <utility>

#include "base/main_thread.h"
#include "platform/linux/glib_main_loop.h"
#include "platform/linux/pidfd.h"
#include "platform/linux/process_facts.h"
#include "platform/linux/session_bus.h"
#include "platform/linux/x11_windows.h"

namespace vesko {
namespace {

using Clock = X11Session::Clock;
using std::chrono::milliseconds;

constexpr milliseconds serverPatience{2000};
constexpr milliseconds busPatience{2000};
// How long an application whose last window has closed may take to end by itself.
constexpr milliseconds windowlessPatience{1000};
// How long the instance that a program handed over to may take to appear.
constexpr milliseconds handOverPatience{2000};
// Without a server nobody tells of windows: what lives as long has started.
constexpr milliseconds startedAnyway{1000};

InstalledApplication toInstalled(const InstalledEntry& entry) {
  return {.bundleIdentifier = entry.id,
          .displayName = entry.entry.localizedName,
          .name = entry.entry.name};
}

std::vector<X11Window> ordinaryWindows(X11Session& x11) {
  const auto clients = clientWindows(x11);
  auto windows = readWindows(x11, clients);
  std::erase_if(windows, [](const X11Window& each) { return !each.ordinary || each.pid <= 0; });
  return windows;
}

std::vector<X11Window> windowsOf(X11Session& x11, pid_t pid) {
  auto windows = ordinaryWindows(x11);
  std::erase_if(windows, [pid](const X11Window& each) { return each.pid != pid; });
  return windows;
}

/// Tells of windows that come and go, from now on.
void watchWindows(X11Session& x11) {
  x11.keepToItself();
  const std::uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
  xcb_change_window_attributes(x11.connection(), x11.root(), XCB_CW_EVENT_MASK, &mask);
}

bool drainEvents(X11Session& x11) {
  bool any = false;
  while (x11.event(Clock::time_point{})) any = true;
  return any;
}

/// Until a window changed, the descriptor is readable or the time has come.
void awaitChange(X11Session* x11, int fd, Clock::time_point until) {
  if (x11 && (xcb_flush(x11->connection()), drainEvents(*x11))) return;
  const bool watched = x11 && !x11->broken();
  const auto left = std::chrono::ceil<milliseconds>(until - Clock::now()).count();
  pollfd ready[]{{fd, POLLIN, 0},
                 {watched ? xcb_get_file_descriptor(x11->connection()) : -1, POLLIN, 0}};
  ::poll(ready, 2, static_cast<int>(std::max<std::int64_t>(left, 0)));
  if (watched) drainEvents(*x11);
}

bool hasEnded(int pidfd) {
  pollfd ended{pidfd, POLLIN, 0};
  return ::poll(&ended, 1, 0) > 0;
}

/// A main window closes with the dialogs that belong to it; closing a dialog alone would answer it.
std::vector<X11Window> mainWindows(const std::vector<X11Window>& windows) {
  std::vector<X11Window> mains;
  for (const X11Window& each : windows) {
    if (std::ranges::find(windows, each.transientFor, &X11Window::id) == windows.end())
      mains.push_back(each);
  }
  return mains;
}

void askToClose(X11Session& x11, xcb_window_t window) {
  xcb_client_message_event_t event{};
  event.response_type = XCB_CLIENT_MESSAGE;
  event.format = 32;
  event.window = window;
  event.type = x11.atom(XAtom::wmProtocols);
  event.data.data32[0] = x11.atom(XAtom::wmDeleteWindow);
  event.data.data32[1] = XCB_CURRENT_TIME;
  xcb_send_event(x11.connection(), 0, window, XCB_EVENT_MASK_NO_EVENT,
                 reinterpret_cast<const char*>(&event));
}

/// An application that lives on without windows: by its own action where it has one, else by the
/// signal that asks every program to end. One that serves others by a name on the bus is left to
/// itself: a file manager may still be copying, and ends when it is done.
void endWindowless(const RunningApplication& application, int pidfd) {
  auto bus = SessionBus::open();
  if (bus) {
    if (bus->owner(application.bundleIdentifier, busPatience) == application.pid &&
        bus->quit(application.bundleIdentifier, busPatience))
      return;
    if (bus->offersService(application.pid, busPatience)) return;
  }
  pidfd_send_signal(pidfd, SIGTERM, nullptr, 0);
}

/// The windows that a launch brought: those of its session are its own, whoever of it shows them.
std::optional<pid_t> ownerOfWindow(X11Session& x11, pid_t leader) {
  std::optional<pid_t> found;
  for (const X11Window& each : ordinaryWindows(x11)) {
    if (each.pid == leader) return leader;
    if (!found && ::getsid(each.pid) == leader) found = each.pid;
  }
  return found;
}

/// A terminal emulator hands over to a server of its own, which shows the window.
std::optional<pid_t> ownerOfNewWindow(X11Session& x11, const std::vector<xcb_window_t>& before) {
  for (const X11Window& each : ordinaryWindows(x11)) {
    if (std::ranges::find(before, each.id) == before.end()) return each.pid;
  }
  return std::nullopt;
}

}  // namespace

/// A command that is being started.
struct LinuxApplications::Launch {
  const InstalledEntry& entry;
  X11Session* x11 = nullptr;              ///< null without a server to tell of windows
  std::vector<xcb_window_t> before = {};  ///< the windows there were, for a terminal's program
  const DetachedProcess* process = nullptr;
  bool reaped = false;
};

LinuxApplications::LinuxApplications(MainLoop& loop, X11Sessions& sessions, WindowSystem& windows,
                                     Environment environment)
    : loop_(loop),
      sessions_(sessions),
      windows_(windows),
      environment_(std::move(environment)),
      entries_(environment_),
      identities_(entries_) {}

// --- What there is --------------------------------------------------------------------------

std::vector<RunningApplication> LinuxApplications::running() {
  std::vector<RunningApplication> applications;
  const auto x11 = sessions_.borrow(Clock::now() + serverPatience);
  if (!x11) return applications;
  auto windows = ordinaryWindows(*x11);
  // By process, in the order of each one's first window.
  std::map<pid_t, std::vector<X11Window>> byProcess;
  std::vector<pid_t> order;
  for (X11Window& each : windows) {
    auto& own = byProcess[each.pid];
    if (own.empty()) order.push_back(each.pid);
    own.push_back(std::move(each));
  }
  for (const pid_t pid : order) {
    if (auto application = identities_.identify(pid, byProcess[pid]))
      applications.push_back(std::move(*application));
  }
  return applications;
}

std::optional<RunningApplication> LinuxApplications::process(pid_t pid) {
  if (auto application = identities_.known(pid)) return application;
  if (!processStartToken(pid)) return std::nullopt;
  std::vector<X11Window> own;
  if (const auto x11 = sessions_.borrow(Clock::now() + serverPatience)) own = windowsOf(*x11, pid);
  return identities_.identify(pid, own);
}

std::optional<RunningApplication> LinuxApplications::frontmost() {
  pid_t pid = 0;
  {
    const auto x11 = sessions_.borrow(Clock::now() + serverPatience);
    if (!x11) return std::nullopt;
    const auto window = readWindow(*x11, activeWindow(*x11));
    if (!window || window->pid <= 0) return std::nullopt;
    pid = window->pid;
  }
  return process(pid);
}

std::vector<InstalledApplication> LinuxApplications::installed() {
  const auto catalogue = entries_.current();
  std::vector<InstalledApplication> all;
  for (const InstalledEntry& each : catalogue->entries()) {
    if (each.listed) all.push_back(toInstalled(each));
  }
  return all;
}

std::optional<InstalledApplication> LinuxApplications::installed(
    const std::string& bundleIdentifier) {
  const auto catalogue = entries_.current();
  const InstalledEntry* entry = catalogue->find(bundleIdentifier);
  return entry ? std::optional(toInstalled(*entry)) : std::nullopt;
}

// --- Launching ------------------------------------------------------------------------------

std::expected<pid_t, std::string> LinuxApplications::launch(
    const InstalledApplication& application) {
  const auto catalogue = entries_.current();
  const InstalledEntry* entry = catalogue->find(application.bundleIdentifier);
  if (!entry) return std::unexpected("the application is no longer installed");
  if (entry->entry.dbusActivatable) {
    bool unknown = false;
    auto pid = launchOverBus(*entry, unknown);
    if (pid || !unknown || entry->command.empty()) return pid;
  }
  return launchCommand(*entry);
}

std::expected<pid_t, std::string> LinuxApplications::launchOverBus(const InstalledEntry& entry,
                                                                   bool& unknown) {
  const auto until = Clock::now() + launchPatience;
  auto bus = SessionBus::open();
  unknown = !bus;
  if (!bus) return std::unexpected("there is no session bus");
  if (const auto activated = bus->activate(entry.id, launchPatience); !activated) {
    unknown = activated.error().unknownService;
    return std::unexpected(activated.error().text);
  }
  const auto pid = bus->owner(entry.id, busPatience);
  if (!pid) return std::unexpected("the program ended at once");
  const UniqueFd pidfd(pidfd_open(*pid, 0));
  const auto x11 = sessions_.borrow(until + serverPatience);
  if (!pidfd || !x11) return *pid;
  watchWindows(*x11);
  while (windowsOf(*x11, *pid).empty() && Clock::now() < until) {
    if (hasEnded(pidfd.get())) return std::unexpected("the program ended at once");
    awaitChange(&*x11, pidfd.get(), until);
  }
  return *pid;
}

std::expected<pid_t, std::string> LinuxApplications::launchCommand(const InstalledEntry& entry) {
  const auto x11 = sessions_.borrow(Clock::now() + launchPatience + serverPatience);
  Launch launch{.entry = entry};
  if (x11) {
    launch.x11 = &*x11;
    watchWindows(*x11);
    if (entry.entry.terminal) launch.before = clientWindows(*x11);
  }
  auto process = startDetached(entry, environment_);
  if (!process) return std::unexpected(std::move(process.error()));
  launch.process = &*process;
  auto pid = awaitStart(launch);
  if (!launch.reaped) reapLater(std::move(*process));
  return pid;
}

std::expected<pid_t, std::string> LinuxApplications::awaitStart(Launch& launch) {
  const DetachedProcess& process = *launch.process;
  auto until = Clock::now() + (launch.x11 ? launchPatience : startedAnyway);
  for (;;) {
    if (launch.x11) {
      if (const auto owner = ownerOfWindow(*launch.x11, process.pid)) return *owner;
    }
    if (!launch.reaped) {
      if (const auto end = endOf(process)) {
        launch.reaped = true;
        if (!end->empty()) return std::unexpected(*end);
        // It may have handed over to an instance that runs, or gone into the background.
        until = Clock::now() + handOverPatience;
      }
    }
    if (launch.reaped) {
      const auto instance =
          launch.entry.entry.terminal
              ? (launch.x11 ? ownerOfNewWindow(*launch.x11, launch.before) : std::nullopt)
              : instanceOf(launch.entry.id);
      if (instance) return *instance;
    }
    if (Clock::now() >= until) {
      // A terminal may show the program in a window that was there.
      if (launch.reaped && !launch.entry.entry.terminal)
        return std::unexpected("the program ended at once and shows no window");
      return process.pid;
    }
    awaitChange(launch.x11, launch.reaped ? -1 : process.pidfd.get(), until);
  }
}

std::optional<pid_t> LinuxApplications::instanceOf(const std::string& id) {
  for (const RunningApplication& each : running()) {
    if (each.bundleIdentifier == id) return each.pid;
  }
  auto bus = SessionBus::open();
  return bus ? bus->owner(id, busPatience) : std::nullopt;
}

void LinuxApplications::reapLater(DetachedProcess process) {
  struct Reaper {
    DetachedProcess process;
    FdWatch watch;
  };
  auto reaper = std::make_shared<Reaper>(std::move(process), FdWatch());
  loop_.post([reaper] {
    assertMainThread();
    // The watch owns its reaper until the process has ended.
    reaper->watch = FdWatch(reaper->process.pidfd.get(), FdWatch::For::reading, [reaper] {
      if (endOf(reaper->process)) reaper->watch.reset();
    });
  });
}

// --- Acting ---------------------------------------------------------------------------------

bool LinuxApplications::activate(const RunningApplication& application) {
  if (processStartToken(application.pid) != application.startToken) return false;
  const auto windows = windows_.windows(application.pid);
  if (!windows) return false;
  // The one used last; a minimised one only where there is no other.
  auto front = std::ranges::find(*windows, false, &DesktopWindow::minimized);
  if (front == windows->end()) front = windows->begin();
  if (front != windows->end()) return windows_.focus(front->number) == AXError::success;

  auto bus = SessionBus::open();
  if (!bus || bus->owner(application.bundleIdentifier, busPatience) != application.pid ||
      !bus->activate(application.bundleIdentifier, busPatience))
    return false;
  const auto x11 = sessions_.borrow(Clock::now() + launchPatience);
  const UniqueFd pidfd(pidfd_open(application.pid, 0));
  if (!x11 || !pidfd) return false;
  watchWindows(*x11);
  const auto until = Clock::now() + launchPatience - serverPatience;
  for (;;) {
    const auto active = readWindow(*x11, activeWindow(*x11));
    if (active && active->pid == application.pid) return true;
    if (Clock::now() >= until || hasEnded(pidfd.get())) return false;
    awaitChange(&*x11, pidfd.get(), until);
  }
}

bool LinuxApplications::quit(const RunningApplication& application) {
  const UniqueFd pidfd(pidfd_open(application.pid, 0));
  if (!pidfd || processStartToken(application.pid) != application.startToken) return false;
  const auto until = Clock::now() + quitPatience;
  const auto x11 = sessions_.borrow(until + serverPatience);
  if (!x11) return false;
  watchWindows(*x11);

  std::vector<X11Window> asked;               // the windows that were asked to close
  std::optional<Clock::time_point> askAgain;  // one that has only just opened may not listen yet
  std::optional<Clock::time_point> windowless;
  bool ending = false;  // asked to end as a whole
  while (Clock::now() < until) {
    if (hasEnded(pidfd.get())) return true;
    const auto now = windowsOf(*x11, application.pid);
    if (x11->broken()) return false;
    const bool asks = !asked.empty() && std::ranges::any_of(now, [&asked](const X11Window& each) {
      return std::ranges::find(asked, each.id, &X11Window::id) == asked.end();
    });
    if (asks) return true;
    const bool first = asked.empty() && !now.empty();
    const bool again = askAgain && Clock::now() >= *askAgain;
    if (!ending && (first || again)) {
      for (const X11Window& each : mainWindows(now)) {
        if (each.canDelete) askToClose(*x11, each.id);
      }
      askAgain.reset();
    }
    if (first && !ending) {
      asked = now;
      askAgain = Clock::now() + quitPatience / 2;
      ending = std::ranges::none_of(now, &X11Window::canDelete);
      if (ending) pidfd_send_signal(pidfd.get(), SIGTERM, nullptr, 0);
    }
    if (!now.empty())
      windowless.reset();
    else if (!windowless)
      windowless = Clock::now();
    if (windowless && !ending && Clock::now() >= *windowless + windowlessPatience) {
      endWindowless(application, pidfd.get());
      ending = true;
    }
    auto next = until;
    if (windowless && !ending) next = std::min(next, *windowless + windowlessPatience);
    if (askAgain && !ending) next = std::min(next, *askAgain);
    awaitChange(&*x11, pidfd.get(), next);
  }
  return hasEnded(pidfd.get());
}

}  // namespace vesko
