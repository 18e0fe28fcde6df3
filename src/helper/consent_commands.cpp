#include "helper/consent_commands.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>

#include "helper/command_session.h"

namespace vesko {
namespace {

using json::Object;

constexpr std::size_t anyNumber = std::numeric_limits<std::size_t>::max();

int showConsents(CommandSession& session, ConsentEditor& editor) {
  Object states;
  std::string text;
  for (const auto& [consent, state] : editor.list()) {
    states.emplace_back(consent, state);
    text += fmt::format("{:<20} {}\n", consent, state);
  }
  return session.json() ? session.printJson(states) : session.print(text);
}

int consentList(CommandSession& session) {
  const auto editor = session.consents();
  if (!editor) return editor.error();
  if (const std::string problem = (*editor)->problem(); !problem.empty())
    return session.fail(exitFailed, "consents", problem);
  return showConsents(session, **editor);
}

/// Looks at all the arguments first, so that a slip in one name changes nothing.
int checkConsentNames(CommandSession& session, ConsentEditor& editor) {
  const auto known = editor.list();
  std::string names;
  for (const auto& entry : known) names += (names.empty() ? "" : ", ") + entry.consent;
  for (const std::string& consent : session.invocation().arguments) {
    if (std::ranges::find(known, consent, &ConsentEditor::Entry::consent) == known.end())
      return session.usageError(fmt::format("unknown consent {}; there are: {}", consent, names));
  }
  return exitOk;
}

int setConsents(CommandSession& session, std::string_view state) {
  const auto editor = session.consents();
  if (!editor) return editor.error();
  if (const int checked = checkConsentNames(session, **editor); checked != exitOk) return checked;
  for (const std::string& consent : session.invocation().arguments) {
    if (auto set = (*editor)->set(consent, state); !set)
      return session.fail(exitFailed, "consents", set.error());
  }
  return session.json() ? showConsents(session, **editor) : exitOk;
}

int consentGrant(CommandSession& session) {
  return setConsents(session, consentGranted);
}
int consentRevoke(CommandSession& session) {
  return setConsents(session, consentDenied);
}
int consentReset(CommandSession& session) {
  return setConsents(session, consentUndetermined);
}

int consentRequest(CommandSession& session) {
  const auto editor = session.consents();
  if (!editor) return editor.error();
  if (const int checked = checkConsentNames(session, **editor); checked != exitOk) return checked;
  const std::string& consent = session.argument(0);
  const auto answer = (*editor)->request(consent);
  if (!answer) return session.fail(exitFailed, "not_asked", answer.error());
  const int printed = session.json() ? session.printJson(Object{{consent, *answer}})
                                     : session.print(fmt::format("{:<20} {}\n", consent, *answer));
  if (printed != exitOk || *answer == consentGranted) return printed;
  return *answer == consentDenied ? exitPermissionMissing : exitFailed;
}

int privacy(CommandSession& session) {
  const auto editor = session.consents();
  if (!editor) return editor.error();
  if (const int checked = checkConsentNames(session, **editor); checked != exitOk) return checked;
  const bool named = !session.invocation().arguments.empty();
  const auto shown = (*editor)->showSettings(named ? session.argument(0) : "");
  if (!shown) return session.fail(exitFailed, "not_shown", shown.error());
  return session.json() ? session.printJson(Object{{"ok", true}}) : exitOk;
}

constexpr CommandEntry commands[] = {
    {"consent list", "", 0, 0, "show what the companion may do", {}, consentList},
    {"consent grant",
     "KIND...",
     1,
     anyNumber,
     "allow the companion something\nKinds are those that consent list shows. They count at once; "
     "for screen_recording a running\ncompanion restarts once by itself.",
     {},
     consentGrant},
    {"consent revoke", "KIND...", 1, anyNumber, "forbid it again", {}, consentRevoke},
    {"consent reset",
     "KIND...",
     1,
     anyNumber,
     "forget the answer, so that the companion may ask",
     {},
     consentReset},
    {"consent request",
     "KIND",
     1,
     1,
     "ask the user for a consent\nShows the companion's question and waits for the answer: 0 "
     "granted, 4 denied, 1 closed without\nan answer. An answer that the user has given before "
     "stands, and nothing is shown.",
     {},
     consentRequest},
    {"privacy", "[KIND]", 0, 1, "open the window in which the user changes consents", {}, privacy},
};

}  // namespace

std::span<const CommandEntry> consentCommands() {
  return commands;
}

}  // namespace vesko
