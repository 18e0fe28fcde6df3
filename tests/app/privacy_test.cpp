// The question and the window of the consents on a real desktop, answered by keyboard and by
// assistive technology, and the companion that shows them.

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <future>
#include <optional>

#include "companion_process.h"
#include "fakes/virtual_main_loop.h"
#include "platform/linux/consent_store.h"
#include "platform/linux/privacy/stray_input_gate.h"
#include "support/accessible_desktop.h"

namespace vesko::test {
namespace {

constexpr std::string_view program = "vesko-privacy";
constexpr std::string_view damagedText = "no property list";

Variables desktopVariables(const Installation& installation) {
  Variables variables{{"HOME", installation.home()}};
  for (const char* name : {"DISPLAY", "XAUTHORITY", "DBUS_SESSION_BUS_ADDRESS", "XDG_RUNTIME_DIR",
                           "GDK_BACKEND", "LANG", "LC_ALL"}) {
    if (const char* value = std::getenv(name)) variables.emplace(name, value);
  }
  return variables;
}

class PrivacyTest : public ::testing::Test {
 protected:
  std::unique_ptr<Process> start(std::vector<std::string> words) {
    words.insert(words.begin(), installation.resource(program));
    return std::make_unique<Process>(words, desktopVariables(installation),
                                     installation.home() / fmt::format("privacy{}", runs_++));
  }
  /// Runs to the end.
  std::optional<int> run(const std::vector<std::string>& words) {
    return Process(words, desktopVariables(installation), installation.home() / "command")
        .waitForExit();
  }
  Element button(std::string_view name) {
    return desktop.waitFor(program, ATSPI_ROLE_PUSH_BUTTON, name);
  }
  /// Waits until the question takes answers, and returns one of its buttons.
  Element openButton(std::string_view name) { return onceOpen(button(name)); }
  /// Waits until the window takes changes.
  Element openToggle(std::string_view name) { return onceOpen(toggle(name)); }
  Element onceOpen(const Element& found) {
    const auto open = [&] { return is(found, ATSPI_STATE_SENSITIVE); };
    return found && desktop.waitUntil(open) ? found : nullptr;
  }
  Element toggle(std::string_view name) {
    return desktop.waitFor(program, ATSPI_ROLE_CHECK_BOX, name);
  }
  bool waitForToggle(std::string_view name, bool on) {
    const Element found = toggle(name);
    return found && desktop.waitUntil([&] { return is(found, ATSPI_STATE_CHECKED) == on; });
  }
  bool waitForRow(std::string_view name) {
    const Element row = desktop.waitFor(program, ATSPI_ROLE_LIST_ITEM, name);
    return row && desktop.waitUntil([&] { return is(row, ATSPI_STATE_FOCUSED); });
  }
  bool press(const std::vector<std::string>& keys) {
    std::vector<std::string> words{"xdotool", "key", "--clearmodifiers"};
    words.insert(words.end(), keys.begin(), keys.end());
    return run(words) == 0;
  }
  /// The last window is gone with its process, which lets go of its mark at its very end.
  bool waitForNoWindow() {
    if (!desktop.waitUntil([&] { return desktop.applications(program).empty(); })) return false;
    UniqueFd mark(::open((installation.consents().native() + ".shown").c_str(), O_RDWR));
    struct flock all{};
    all.l_type = F_WRLCK;
    if (::fcntl(mark.get(), F_OFD_SETLKW, &all) != 0) return false;
    mark.reset();
    return !PrivacyWindowMark(installation.consents()).shown();
  }

  Installation installation;
  ConsentStore store{installation.consents()};
  AccessibleDesktop desktop;

 private:
  int runs_ = 0;
};

TEST(StrayInputGate, opensOnlyAfterAMomentWithoutInput) {
  fakes::VirtualMainLoop loop;
  std::string changes;
  StrayInputGate gate(loop, [&](bool open) { changes += open ? "open;" : "closed;"; });
  const auto pass = [&](int milliseconds) {
    loop.advance(std::chrono::milliseconds(milliseconds));
  };
  EXPECT_FALSE(gate.admit());
  pass(5000);
  EXPECT_FALSE(gate.admit()) << "another window has the keyboard";
  gate.setFocused(true);
  for (int i = 0; i < 20; ++i) {
    pass(799);
    EXPECT_FALSE(gate.admit());
  }
  pass(800);
  EXPECT_TRUE(gate.admit());
  pass(5000);
  EXPECT_TRUE(gate.admit());
  gate.setFocused(false);
  pass(5000);
  EXPECT_FALSE(gate.admit());
  gate.setFocused(true);
  pass(800);
  EXPECT_EQ(changes, "open;closed;open;");
}

TEST_F(PrivacyTest, answersToTheKeyboard) {
  struct Case {
    std::vector<std::string> keys;
    int exit;
    ConsentState state;
  };
  const Case cases[] = {
      {{"Return"}, 1, ConsentState::denied},        {{"Escape"}, 1, ConsentState::denied},
      {{"Tab", "space"}, 0, ConsentState::granted}, {{"alt+a"}, 0, ConsentState::granted},
      {{"alt+F4"}, 3, ConsentState::notDetermined},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.keys.back());
    ASSERT_TRUE(store.set(Consent::photos, ConsentState::notDetermined));
    const auto question = start({"ask", "photos"});
    const Element deny = openButton("Don't Allow");
    ASSERT_TRUE(deny);
    EXPECT_TRUE(desktop.waitUntil([&] { return is(deny, ATSPI_STATE_FOCUSED); }));
    EXPECT_TRUE(PrivacyWindowMark(installation.consents()).shown());
    ASSERT_TRUE(press(c.keys));
    EXPECT_EQ(question->waitForExit(), c.exit) << question->err();
    EXPECT_EQ(store.state(Consent::photos), c.state);
    EXPECT_TRUE(waitForNoWindow());
  }
}

TEST_F(PrivacyTest, answersToAssistiveTechnologyAndSaysWhatItAsks) {
  for (const auto& [consent, word] : json::EnumNames<Consent>::values) {
    SCOPED_TRACE(word);
    const auto question = start({"ask", std::string(word)});
    const Element dialog = desktop.waitFor(program, ATSPI_ROLE_DIALOG);
    ASSERT_TRUE(dialog);
    EXPECT_TRUE(nameOf(dialog).starts_with("“Vesko Companion” would like to ")) << nameOf(dialog);
    EXPECT_NE(descriptionOf(dialog), "");
    question->kill(SIGKILL);
    EXPECT_TRUE(waitForNoWindow());
    EXPECT_EQ(store.state(consent), ConsentState::notDetermined);
  }
  const std::pair<const char*, ConsentState> answers[] = {{"Don't Allow", ConsentState::denied},
                                                          {"Allow", ConsentState::granted}};
  for (const auto& [name, state] : answers) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(store.set(Consent::accessibility, ConsentState::notDetermined));
    const auto question = start({"ask", "accessibility"});
    const Element answer = openButton(name);
    ASSERT_TRUE(answer);
    EXPECT_TRUE(test::press(answer));
    EXPECT_EQ(question->waitForExit(), state == ConsentState::granted ? 0 : 1) << question->err();
    EXPECT_EQ(store.state(Consent::accessibility), state);
    EXPECT_TRUE(waitForNoWindow());
  }
}

TEST_F(PrivacyTest, isNotAnsweredByWhatWasTypedForAnotherWindow) {
  // An attempt counts when all keys came before the question opened, which they themselves delay.
  for (int valid = 0, attempt = 0; valid < 2 && attempt < 20; ++attempt) {
    const auto question = start({"ask", "contacts"});
    const Element allow = button("Allow");
    ASSERT_TRUE(allow);
    ASSERT_TRUE(press({"alt+a", "Tab", "space", "Return", "Escape"}));
    if (is(allow, ATSPI_STATE_SENSITIVE)) continue;
    EXPECT_FALSE(test::press(allow) && !question->running()) << "nor by assistive technology";
    ASSERT_TRUE(openButton("Allow"));
    EXPECT_TRUE(question->running());
    EXPECT_EQ(store.state(Consent::contacts), ConsentState::notDetermined);
    question->kill(SIGKILL);
    EXPECT_EQ(question->waitForExit(), 128 + SIGKILL);
    EXPECT_TRUE(waitForNoWindow());
    ++valid;
    if (valid == 2) return;
  }
  FAIL() << "the machine was too slow to type before the question opened";
}

TEST_F(PrivacyTest, theWindowIsNotOperatedByWhatWasTypedForAnother) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    ASSERT_EQ(run({installation.resource(program), "settings", "contacts"}), 0);
    const Element contacts = toggle("Contacts");
    ASSERT_TRUE(contacts);
    ASSERT_TRUE(press({"space", "Return", "Tab", "space", "Return"}));
    // An attempt counts when all keys came before the window opened, as with the question.
    const bool valid = !is(contacts, ATSPI_STATE_SENSITIVE);
    if (valid) test::press(contacts);
    ASSERT_TRUE(openToggle("Contacts"));
    if (valid) {
      EXPECT_EQ(store.state(Consent::contacts), ConsentState::notDetermined);
      EXPECT_FALSE(is(contacts, ATSPI_STATE_CHECKED));
    }
    EXPECT_TRUE(press({"alt+F4"}));
    EXPECT_TRUE(waitForNoWindow());
    if (valid) return;
    ASSERT_TRUE(store.set(Consent::contacts, ConsentState::notDetermined));
  }
  FAIL() << "the machine was too slow to type before the window opened";
}

TEST_F(PrivacyTest, questionsTakeTurnsAndAnAnswerStands) {
  const auto first = start({"ask", "photos"});
  Element allow = openButton("Allow");
  ASSERT_TRUE(allow);
  const auto second = start({"ask", "photos"});
  EXPECT_TRUE(test::press(allow));
  EXPECT_EQ(first->waitForExit(), 0);
  EXPECT_EQ(second->waitForExit(), 0) << "the same question is not asked twice";

  const auto third = start({"ask", "contacts"});
  allow = openButton("Allow");
  ASSERT_TRUE(allow);
  EXPECT_EQ(processOf(allow), static_cast<unsigned>(third->pid()));
  const auto fourth = start({"ask", "notes_automation"});
  EXPECT_EQ(run({installation.resource(program), "ask", "photos"}), 0) << "waits for nobody";
  EXPECT_TRUE(press({"Escape"}));
  EXPECT_EQ(third->waitForExit(), 1);
  ASSERT_TRUE(openButton("Allow"));
  EXPECT_EQ(desktop.applications(program).size(), 1U);
  EXPECT_TRUE(press({"alt+a"}));
  EXPECT_EQ(fourth->waitForExit(), 0);
  // No display is needed for what was answered.
  const auto ask = [&](const char* consent) {
    Process process({installation.resource(program), "ask", consent},
                    {{"HOME", installation.home()}}, installation.home() / "command");
    const auto exit = process.waitForExit();
    return std::pair{exit.value_or(-1), process.err()};
  };
  EXPECT_EQ(ask("photos").first, 0);
  EXPECT_EQ(ask("contacts").first, 1);
  const auto [exit, error] = ask("accessibility");
  EXPECT_EQ(exit, 4);
  EXPECT_NE(error.find("vesko-privacy: there is no display\n"), std::string::npos) << error;
  EXPECT_EQ(ask("moon").first, 2);
}

TEST_F(PrivacyTest, theWindowShowsAndChangesEveryConsent) {
  ASSERT_TRUE(store.set(Consent::photos, ConsentState::granted));
  EXPECT_EQ(run({installation.resource(program), "settings", "photos"}), 0);
  EXPECT_TRUE(waitForToggle("Photos", true));
  EXPECT_TRUE(waitForToggle("Accessibility", false));
  EXPECT_TRUE(waitForRow("Photos"));
  EXPECT_TRUE(PrivacyWindowMark(installation.consents()).shown());

  // What others change shows at once, and what is changed here is stored.
  ASSERT_TRUE(store.set(Consent::screenRecording, ConsentState::granted));
  EXPECT_TRUE(waitForToggle("Screen Recording", true));
  const auto flip = [&](const char* name, bool on) {
    return test::press(openToggle(name)) && waitForToggle(name, on);
  };
  ASSERT_TRUE(openToggle("Photos"));
  EXPECT_TRUE(press({"space"})) << "moves nothing";
  EXPECT_TRUE(press({"Tab", "space"}));
  EXPECT_TRUE(waitForToggle("Photos", false)) << "the switch beside where the page pointed";
  EXPECT_EQ(store.state(Consent::photos), ConsentState::denied);
  EXPECT_TRUE(flip("Contacts", true));
  EXPECT_EQ(store.state(Consent::contacts), ConsentState::granted);

  // A second start shows the same window.
  const unsigned process = processOf(toggle("Photos"));
  EXPECT_EQ(run({installation.resource(program), "settings", "accessibility"}), 0);
  EXPECT_TRUE(waitForRow("Accessibility"));
  EXPECT_EQ(desktop.applications(program).size(), 1U);
  EXPECT_EQ(processOf(toggle("Photos")), process);

  support::writeFile(installation.consents(), std::string(damagedText));
  EXPECT_TRUE(waitForToggle("Contacts", false));
  EXPECT_TRUE(
      desktop.waitFor(program, ATSPI_ROLE_LABEL,
                      "The stored answers do not count, so nothing is allowed: the file is " +
                          store.problem() + ". It is kept aside when you change a switch."));
  EXPECT_TRUE(flip("Photos", true));
  EXPECT_EQ(store.problem(), "");
  EXPECT_EQ(support::contentOf(installation.consents().native() + ".damaged"), damagedText);

  EXPECT_TRUE(press({"alt+F4"}));
  EXPECT_TRUE(waitForNoWindow());
}

TEST_F(PrivacyTest, noWindowIsShownThatOthersCouldNotSee) {
  ASSERT_TRUE(store.set(Consent::photos, ConsentState::denied));
  std::filesystem::create_directory(installation.consents().native() + ".shown");
  for (const char* command : {"ask", "settings"}) {
    SCOPED_TRACE(command);
    const auto process = start({command, "contacts"});
    EXPECT_EQ(process->waitForExit(), 4);
    EXPECT_NE(process->err().find("vesko-privacy: cannot lock the consents: Is a directory\n"),
              std::string::npos)
        << process->err();
  }
}

TEST_F(PrivacyTest, theCompanionAsksForTheHelperAndLeavesTheAnswerToTheUser) {
  ASSERT_TRUE(store.set(Consent::accessibility, ConsentState::granted));
  Variables variables = desktopVariables(installation);
  variables.emplace("VESKOKIT_PAIRING_CODE", "SECRET");
  const auto companion = installation.start(variables);
  DaemonLink daemon = installation.nextDaemon();
  const auto server = daemon.announcement();
  ASSERT_TRUE(server);
  const auto request = [&] {
    return std::async(std::launch::async, [&] {
      return ask(*server, "POST", "/permissions/messages-automation").body;
    });
  };
  const auto move = [&] { return ask(*server, "POST", "/input/move", R"({"x":5,"y":5})"); };
  EXPECT_EQ(move().status, 200);

  auto first = request();
  auto second = request();
  const Element allow = openButton("Allow");
  ASSERT_TRUE(allow);
  const std::string environment =
      support::contentOf(fmt::format("/proc/{}/environ", processOf(allow)));
  EXPECT_NE(environment.find("HOME="), std::string::npos);
  EXPECT_EQ(environment.find("VESKOKIT_"), std::string::npos);
  EXPECT_EQ(move().body, R"({"message":"a privacy window is open; only the user may operate it"})");
  EXPECT_EQ(ask(*server, "POST", "/app/quit", "{}").body, move().body);
  EXPECT_EQ(ask(*server, "POST", "/window/list", "{}").status, 200);
  EXPECT_EQ(ask(*server, "POST", "/clipboard/set", R"({"text":"kept"})").status, 200);
  EXPECT_TRUE(test::press(allow));
  EXPECT_EQ(first.get(), R"({"granted":true})");
  EXPECT_EQ(second.get(), R"({"granted":true})");
  EXPECT_EQ(request().get(), R"({"granted":true,"already_granted":true})");
  EXPECT_TRUE(waitForNoWindow());
  EXPECT_EQ(move().status, 200);
  EXPECT_TRUE(installation.waitForLog("automation request status=granted"));

  // Once it was denied only the settings can change it.
  ASSERT_TRUE(store.set(Consent::messagesAutomation, ConsentState::denied));
  EXPECT_EQ(request().get(),
            R"({"granted":false,"error":"approval_required",)"
            R"("reason":"Messages Automation is denied; enable it in System Settings"})");
  EXPECT_TRUE(waitForToggle("Automation of Messages", false));
  EXPECT_TRUE(press({"alt+F4"}));
  EXPECT_TRUE(waitForNoWindow());

  // What is open when the companion ends goes with it.
  ASSERT_TRUE(store.set(Consent::messagesAutomation, ConsentState::notDetermined));
  auto unanswered = request();
  ASSERT_TRUE(openButton("Allow"));
  companion->kill(SIGTERM);
  EXPECT_EQ(companion->waitForExit(), 0) << companion->err();
  EXPECT_TRUE(waitForNoWindow());
  unanswered.get();
  EXPECT_EQ(installation.log().find("SECRET"), std::string::npos);
}

TEST_F(PrivacyTest, aCompanionThatCannotAskSaysSoAndGoesOn) {
  const char* pending = R"({"granted":false,"error":"approval_required",)"
                        R"("reason":"macOS Automation approval is still required"})";
  const auto companion = installation.start({});
  DaemonLink daemon = installation.nextDaemon();
  const auto server = daemon.announcement();
  ASSERT_TRUE(server);
  EXPECT_EQ(ask(*server, "POST", "/permissions/messages-automation").body, pending);
  EXPECT_TRUE(
      installation.waitForLog("ERROR automation request could not be shown: there is no display"));
  std::filesystem::remove(installation.resource(program));
  EXPECT_EQ(ask(*server, "POST", "/permissions/messages-automation").body, pending);
  EXPECT_TRUE(
      installation.waitForLog("ERROR automation request could not be shown: vesko-privacy "
                              "could not start: No such file or directory"));
  EXPECT_TRUE(installation.waitForLog("automation request status=not_determined", 2));
}

TEST_F(PrivacyTest, theCommandLineAsksAndOpensTheWindow) {
  const auto start = [&](std::vector<std::string> words) {
    words.insert(words.begin(), installation.veskoctl());
    return std::make_unique<Process>(words, desktopVariables(installation),
                                     installation.home() / "veskoctl");
  };
  const auto question = start({"consent", "request", "photos"});
  const Element deny = openButton("Don't Allow");
  ASSERT_TRUE(deny);
  EXPECT_TRUE(test::press(deny));
  EXPECT_EQ(question->waitForExit(), 4) << question->err();
  EXPECT_EQ(question->out(), "photos               denied\n");
  ASSERT_TRUE(store.set(Consent::photos, ConsentState::granted));
  const auto granted = start({"--json", "consent", "request", "photos"});
  EXPECT_EQ(granted->waitForExit(), 0);
  EXPECT_EQ(granted->out(), "{\"photos\":\"granted\"}\n");
  EXPECT_EQ(start({"consent", "request", "moon"})->waitForExit(), 2);
  EXPECT_EQ(start({"privacy"})->waitForExit(), 0);
  EXPECT_TRUE(waitForToggle("Photos", true));
  EXPECT_TRUE(press({"alt+F4"}));
  EXPECT_TRUE(waitForNoWindow());
}

}  // namespace
}  // namespace vesko::test
