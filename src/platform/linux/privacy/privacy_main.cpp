// vesko-privacy: asks the user for one consent, or shows the window in which all of them are
// changed.

#include <adwaita.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/bundle.h"
#include "base/digest.h"
#include "base/directories.h"
#include "base/file.h"
#include "base/main_thread.h"
#include "base/unique_fd.h"
#include "platform/linux/consent_store.h"
#include "platform/linux/glib_main_loop.h"
#include "platform/linux/privacy/ask_dialog.h"
#include "platform/linux/privacy/settings_window.h"
#include "platform/linux/privacy/widgets.h"
#include "platform/linux/privacy_program.h"

namespace vesko {
namespace {

using privacyProgram::ExitCode;
namespace fs = std::filesystem;

constexpr std::string_view usageText =
    "usage: vesko-privacy [--consents FILE] ask CONSENT\n"
    "       vesko-privacy [--consents FILE] settings [CONSENT]\n"
    "\n"
    "ask shows a question and ends with 0 allowed, 1 not allowed, 3 not answered, 4 not asked.\n"
    "settings opens the window in which consents are changed and returns once it is shown.\n";

/// A desktop that hangs answers never, a busy one late.
constexpr int shownWithinMilliseconds = 15'000;

struct Invocation {
  fs::path consents;
  bool ask = false;
  std::optional<Consent> consent;
};

/// Who the question is asked for.
struct Application {
  std::string identifier;
  std::string name;
  fs::path consents;  ///< where its consents are unless something else is said
};

Application ownApplication() {
  std::error_code error;
  const auto bundle = Bundle::containing(fs::read_symlink("/proc/self/exe", error));
  const auto identifier = bundle ? bundle->identifier() : std::nullopt;
  const auto name = bundle ? bundle->infoString("CFBundleName") : std::nullopt;
  return {.identifier = identifier.value_or(std::string(releaseBundleIdentifier)),
          .name = name.value_or("Vesko Companion"),
          .consents = Directories::under(homeDirectory(), identifier).state / "consents.plist"};
}

std::optional<Invocation> parse(std::span<char*> words, const Application& application) {
  Invocation result{.consents = application.consents, .ask = false, .consent = {}};
  if (words.size() >= 2 && words[0] == std::string_view("--consents")) {
    result.consents = words[1];
    words = words.subspan(2);
  }
  if (words.empty() || words.size() > 2) return std::nullopt;
  result.ask = words[0] == std::string_view("ask");
  if (!result.ask && words[0] != std::string_view("settings")) return std::nullopt;
  if (words.size() == 1) return result.ask ? std::nullopt : std::optional(result);
  for (const auto& [consent, word] : json::EnumNames<Consent>::values) {
    if (word == words[1]) result.consent = consent;
  }
  return result.consent ? std::optional(result) : std::nullopt;
}

/// Only one question is on the screen at a time, whoever asks. Waits for those before it.
std::optional<UniqueFd> takeTurn(const fs::path& consents) {
  auto path = consents;
  path += ".asking";
  UniqueFd turn(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!turn) return std::nullopt;
  while (::flock(turn.get(), LOCK_EX) != 0) {
    if (errno != EINTR) return std::nullopt;
  }
  return turn;
}

/// Without it the assistant could operate the window: nothing is shown then.
std::optional<UniqueFd> showMark(const fs::path& consents) {
  auto mark = PrivacyWindowMark(consents).show();
  if (mark) return std::move(*mark);
  widgets::complain("cannot lock the consents: " + mark.error());
  return std::nullopt;
}

std::optional<ExitCode> standingAnswer(ConsentStore& store, Consent consent) {
  switch (store.state(consent)) {
    case ConsentState::granted:
      return privacyProgram::granted;
    case ConsentState::denied:
      return privacyProgram::denied;
    case ConsentState::notDetermined:
      break;
  }
  return std::nullopt;
}

bool openDisplay() {
  if (gtk_init_check()) {
    adw_init();
    widgets::loadStyle();
    return true;
  }
  widgets::complain("there is no display");
  return false;
}

ExitCode ask(const Invocation& invocation, const Application& application, pid_t asker) {
  // The question goes with whoever asked it, or is not shown when that one has gone already.
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != asker) return privacyProgram::notAsked;
  ConsentStore store(invocation.consents);
  if (const auto answer = standingAnswer(store, *invocation.consent)) return *answer;
  const auto turn = takeTurn(invocation.consents);
  if (!turn) {
    widgets::complain(fmt::format("cannot lock the consents: {}", std::strerror(errno)));
    return privacyProgram::notAsked;
  }
  // It may have been the question of the one before.
  if (const auto answer = standingAnswer(store, *invocation.consent)) return *answer;
  if (!openDisplay()) return privacyProgram::notAsked;
  const auto mark = showMark(invocation.consents);
  if (!mark) return privacyProgram::notAsked;
  GlibMainLoop loop;
  return askForConsent(loop, store, *invocation.consent, application.name);
}

/// The settings window with the process it lives in.
class Settings {
 public:
  Settings(const Invocation& invocation, const Application& application,
           std::function<void()> shown)
      : invocation_(invocation),
        name_(application.name),
        shown_(std::move(shown)),
        store_(invocation.consents),
        application_(adw_application_new(uniqueName(invocation, application).c_str(),
                                         G_APPLICATION_DEFAULT_FLAGS)) {}
  Settings(const Settings&) = delete;
  Settings& operator=(const Settings&) = delete;
  ~Settings() { g_object_unref(application_); }

  ExitCode run() {
    GSimpleAction* show = g_simple_action_new("show", G_VARIANT_TYPE_STRING);
    widgets::connect<void, GVariant*>(show, "activate", this, [](Settings& self, GVariant* word) {
      self.show(g_variant_get_string(word, nullptr));
    });
    g_action_map_add_action(G_ACTION_MAP(application_), G_ACTION(show));
    g_object_unref(show);
    // Showing is by the action alone, which carries the consent; activation has none.
    widgets::connect<void>(application_, "activate", this, [](Settings&) {});
    GError* error = nullptr;
    if (!g_application_register(G_APPLICATION(application_), nullptr, &error)) {
      widgets::complain(error->message);
      g_error_free(error);
      return privacyProgram::notAsked;
    }
    const std::string word(invocation_.consent ? json::wordOf(*invocation_.consent) : "");
    g_action_group_activate_action(G_ACTION_GROUP(application_), "show",
                                   g_variant_new_string(word.c_str()));
    if (g_application_get_is_remote(G_APPLICATION(application_))) {
      g_dbus_connection_flush_sync(g_application_get_dbus_connection(G_APPLICATION(application_)),
                                   nullptr, nullptr);
      shown_();
      return privacyProgram::granted;
    }
    const int code = g_application_run(G_APPLICATION(application_), 0, nullptr);
    window_.reset();
    return code == 0 ? privacyProgram::granted : privacyProgram::notAsked;
  }

 private:
  // One window for each file of consents.
  static std::string uniqueName(const Invocation& invocation, const Application& application) {
    std::string name = application.identifier + ".privacy";
    if (invocation.consents != application.consents)
      name +=
          ".at" + sha256Hex(std::as_bytes(std::span(invocation.consents.native()))).substr(0, 16);
    return name;
  }

  void show(std::string_view word) {
    if (!window_) {
      widgets::loadStyle();
      window_.emplace(GTK_APPLICATION(application_), loop_, store_, name_, shown_);
    }
    std::optional<Consent> at;
    for (const auto& [consent, name] : json::EnumNames<Consent>::values) {
      if (name == word) at = consent;
    }
    window_->present(at);
  }

  const Invocation& invocation_;
  const std::string name_;
  const std::function<void()> shown_;
  ConsentStore store_;
  GlibMainLoop loop_;
  AdwApplication* application_;
  std::optional<SettingsWindow> window_;
};

/// In a process of its own, that neither a terminal nor the end of whoever opened it takes away.
/// This one ends when the window is on the screen.
ExitCode openSettings(const Invocation& invocation, const Application& application) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    widgets::complain(std::strerror(errno));
    return privacyProgram::notAsked;
  }
  UniqueFd reader(ends[0]);
  UniqueFd writer(ends[1]);
  const pid_t window = ::fork();
  if (window < 0) {
    widgets::complain(std::strerror(errno));
    return privacyProgram::notAsked;
  }
  if (window > 0) {
    writer.reset();
    pollfd ready{.fd = reader.get(), .events = POLLIN, .revents = 0};
    int count = 0;
    while ((count = ::poll(&ready, 1, shownWithinMilliseconds)) < 0 && errno == EINTR) {
    }
    if (ready.revents & POLLIN) return privacyProgram::granted;
    if (count <= 0) {
      widgets::complain("the desktop did not show the window in time");
      ::kill(window, SIGKILL);
    }
    int status = 0;
    while (::waitpid(window, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? ExitCode(WEXITSTATUS(status)) : privacyProgram::notAsked;
  }
  reader.reset();
  ::setsid();
  if (!gtk_init_check()) {
    widgets::complain("there is no display");
    return privacyProgram::notAsked;
  }
  const auto mark = showMark(invocation.consents);
  if (!mark) return privacyProgram::notAsked;
  const auto shown = [&writer] {
    // Nobody reads what toolkits have to say from here on.
    const UniqueFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) ::dup2(null.get(), fd);
    while (::write(writer.get(), "s", 1) < 0 && errno == EINTR) {
    }
    writer.reset();
  };
  return Settings(invocation, application, shown).run();
}

int run(std::span<char*> words, pid_t asker) {
  const Application application = ownApplication();
  const auto invocation = parse(words, application);
  if (!invocation) {
    fmt::print(stderr, "{}", usageText);
    return privacyProgram::usage;
  }
  if (auto made = createDirectories(invocation->consents.parent_path(), 0700); !made) {
    widgets::complain(fmt::format("cannot use {}: {}", invocation->consents.parent_path().native(),
                                  made.error().message()));
    return privacyProgram::notAsked;
  }
  g_set_prgname("vesko-privacy");
  g_set_application_name(application.name.c_str());
  return invocation->ask ? ask(*invocation, application, asker)
                         : openSettings(*invocation, application);
}

}  // namespace
}  // namespace vesko

int main(int argc, char** argv) {
  const pid_t asker = ::getppid();
  vesko::adoptMainThread();
  std::signal(SIGPIPE, SIG_IGN);
  const int code =
      vesko::run(std::span(argv, static_cast<std::size_t>(argc)).subspan(argc > 0 ? 1 : 0), asker);
  // Without the toolkit's own farewell: what it holds goes with the process.
  std::_Exit(code);
}
