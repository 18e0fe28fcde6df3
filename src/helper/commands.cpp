#include "helper/commands.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

#include "base/base64.h"
#include "base/file.h"
#include "base/text.h"
#include "helper/doctor/doctor.h"
#include "helper/key_combination.h"
#include "helper/mcp/command.h"

namespace vesko {
namespace {

using json::Object;
using json::Value;

/// How a value of an answer reads in plain text.
std::string plain(const Value* value) {
  if (!value || value->isNull()) return "-";
  if (const std::string* text = value->asString()) return *text;
  if (const auto flag = value->asBool()) return *flag ? "yes" : "no";
  return json::serialize(*value).value_or("-");
}

int status(CommandSession& session) {
  const auto helper = session.helperStatus();
  if (!helper) return helper.error();
  const Value* announced = helper->find("control_server");
  std::expected<Value, int> companion = std::unexpected(int{exitUnreachable});
  if (session.json()) {
    // An error goes out as the one result, so the helper's part is not lost on the way to it.
    companion = session.call("GET", "/status");
    if (!companion) return companion.error();
    return session.printJson(Object{{"helper", *helper}, {"companion", *companion}});
  }
  std::string text =
      fmt::format("helper:     version {}, process {}\ndevice:     {} ({})\n",
                  plain(helper->find("version")), plain(helper->find("pid")),
                  plain(helper->find("device_id")), plain(helper->find("device_name")));
  text += fmt::format("companion:  {}\n",
                      announced && announced->asBool() == true ? "announced" : "not announced");
  if (const int printed = session.print(text); printed != exitOk) return printed;
  companion = session.call("GET", "/status");
  if (!companion) return companion.error();
  text.clear();
  if (const Object* entries = companion->asObject()) {
    for (const auto& [key, value] : *entries) text += fmt::format("  {}: {}\n", key, plain(&value));
  }
  return session.print(text);
}

int callRoute(CommandSession& session) {
  std::optional<Value> body;
  if (session.invocation().arguments.size() > 2) {
    const auto text = session.textArgument(2);
    if (!text) return text.error();
    auto parsed = json::parse(*text);
    if (!parsed) return session.usageError("the body is not JSON: " + parsed.error());
    body = std::move(*parsed);
  }
  const auto answer = session.call(session.argument(0), session.argument(1), std::move(body));
  return answer ? session.printJson(*answer) : answer.error();
}

int displays(CommandSession& session) {
  const auto answer = session.call("POST", "/displays");
  if (!answer) return answer.error();
  if (session.json()) return session.printJson(*answer);
  const Value* list = answer->find("displays");
  std::string text;
  for (const Value& display : list && list->asArray() ? *list->asArray() : json::Array()) {
    const Value* primary = display.find("primary");
    text += fmt::format("{}  {}x{}  scale {}{}\n", plain(display.find("id")),
                        plain(display.find("width")), plain(display.find("height")),
                        plain(display.find("scale")),
                        primary && primary->asBool() == true ? "  main" : "");
  }
  return session.print(text);
}

std::optional<Value> parseRegion(std::string_view text) {
  const auto parts = json::parse(fmt::format("[{}]", text));
  const json::Array* numbers = parts ? parts->asArray() : nullptr;
  if (!numbers || numbers->size() != 4 ||
      !std::ranges::all_of(*numbers, [](const Value& v) { return v.asDouble().has_value(); }))
    return std::nullopt;
  return Object{
      {"x", (*numbers)[0]}, {"y", (*numbers)[1]}, {"w", (*numbers)[2]}, {"h", (*numbers)[3]}};
}

/// What is no file, as /dev/null, is not to be replaced by one.
int writePicture(CommandSession& session, const std::string& file, std::string_view content) {
  std::error_code ignored;
  const auto there = std::filesystem::status(file, ignored);
  const bool special = std::filesystem::exists(there) && !std::filesystem::is_regular_file(there);
  // A picture of the screen, or of somebody's life, is nobody else's business.
  const auto written = special ? writeInto(file, content) : replaceFile(file, content, 0600);
  if (written) return exitOk;
  return session.fail(exitFailed, "output",
                      fmt::format("cannot write {}: {}", file, written.error().message()));
}

int capture(CommandSession& session) {
  const Invocation& given = session.invocation();
  const std::string& file = session.argument(0);
  const bool toOutput = file == "-";
  if (given.has("window") && (given.has("display") || given.has("region")))
    return session.usageError("--window goes without --display and --region");
  if (toOutput && session.json())
    return session.usageError("--json and - both write to standard output");
  if (toOutput && ::isatty(STDOUT_FILENO))
    return session.usageError("will not write an image to a terminal");

  Object body{{"target", given.has("window")   ? "window"
                         : given.has("region") ? "region"
                                               : "display"}};
  if (const auto display = given.value("display")) body.emplace_back("display_id", *display);
  for (const auto& [option, key] :
       {std::pair{"window", "window_id"}, std::pair{"max-dim", "max_dim"}}) {
    const auto text = given.value(option);
    if (!text) continue;
    const auto number = parseDecimal(*text);
    if (!number) return session.usageError(fmt::format("--{} takes a whole number", option));
    body.emplace_back(key, *number);
  }
  if (const auto text = given.value("region")) {
    auto region = parseRegion(*text);
    if (!region) return session.usageError("--region takes four numbers: X,Y,W,H");
    body.emplace_back("rect", std::move(*region));
  }
  const auto answer = session.call("POST", "/capture", std::move(body));
  if (!answer) return answer.error();
  const Value* encoded = answer->find("png_base64");
  const auto image = encoded && encoded->asString() ? decodeBase64(*encoded->asString())
                                                    : std::optional<std::string>();
  if (!image || !image->starts_with("\x89PNG\r\n\x1a\n"))
    return session.fail(exitFailed, "bad_answer", "the companion's answer holds no PNG image");
  if (toOutput) return session.print(*image);
  if (const int written = writePicture(session, file, *image); written != exitOk) return written;
  Object result{{"file", file}};
  for (const char* key : {"width", "height", "scale"}) {
    const Value* value = answer->find(key);
    result.emplace_back(key, value ? *value : Value());
  }
  if (session.json()) return session.printJson(result);
  return session.print(
      fmt::format("{}: {}x{}\n", file, plain(&result[1].second), plain(&result[2].second)));
}

int photo(CommandSession& session) {
  const std::string& file = session.argument(1);
  const bool toOutput = file == "-";
  if (toOutput && session.json())
    return session.usageError("--json and - both write to standard output");
  if (toOutput && ::isatty(STDOUT_FILENO))
    return session.usageError("will not write an image to a terminal");
  Object body{{"uuid", session.argument(0)}};
  if (const auto text = session.invocation().value("max-bytes")) {
    const auto number = parseDecimal(*text);
    if (!number) return session.usageError("--max-bytes takes a whole number");
    body.emplace_back("maxBytes", *number);
  }
  const auto answer = session.call("POST", "/photos/export", std::move(body));
  if (!answer) return answer.error();
  const Value* encoded = answer->find("dataBase64");
  const auto image = encoded && encoded->asString() ? decodeBase64(*encoded->asString())
                                                    : std::optional<std::string>();
  if (!image) return session.fail(exitFailed, "bad_answer", "the companion's answer holds no file");
  if (toOutput) return session.print(*image);
  if (const int written = writePicture(session, file, *image); written != exitOk) return written;
  Object result{{"file", file}};
  for (const char* key : {"mimeType", "filename", "width", "height", "transcoded"}) {
    const Value* value = answer->find(key);
    result.emplace_back(key, value ? *value : Value());
  }
  if (session.json()) return session.printJson(result);
  return session.print(fmt::format("{}: {}, {}x{}\n", file, plain(answer->find("mimeType")),
                                   plain(answer->find("width")), plain(answer->find("height"))));
}

/// Numbers for the given keys, from the front of the arguments.
std::expected<Object, int> numbers(CommandSession& session,
                                   std::initializer_list<const char*> keys) {
  Object body;
  for (const char* key : keys) {
    const auto number = session.numberArgument(body.size());
    if (!number) return std::unexpected(number.error());
    body.emplace_back(key, *number);
  }
  return body;
}

int performWithNumbers(CommandSession& session, const std::string& path,
                       std::initializer_list<const char*> keys) {
  auto body = numbers(session, keys);
  return body ? session.perform(path, std::move(*body)) : body.error();
}

int move(CommandSession& session) {
  return performWithNumbers(session, "/input/move", {"x", "y"});
}

int drag(CommandSession& session) {
  return performWithNumbers(session, "/input/drag", {"from_x", "from_y", "to_x", "to_y"});
}

int scroll(CommandSession& session) {
  return performWithNumbers(session, "/input/scroll", {"dx", "dy"});
}

int click(CommandSession& session) {
  Object body;
  const std::size_t count = session.invocation().arguments.size();
  if (count == 1) return session.usageError("click takes both coordinates or none");
  if (count == 2) {
    auto point = numbers(session, {"x", "y"});
    if (!point) return point.error();
    body = std::move(*point);
  }
  if (const auto button = session.invocation().value("button"))
    body.emplace_back("button", *button);
  if (const auto text = session.invocation().value("count")) {
    const auto times = parseDecimal(*text);
    if (!times) return session.usageError("--count takes a whole number");
    body.emplace_back("count", *times);
  }
  return session.perform("/input/click", std::move(body));
}

int type(CommandSession& session) {
  auto text = session.textArgument(0);
  if (!text) return text.error();
  const char* method = session.invocation().has("paste") ? "paste" : "keystroke";
  return session.perform("/input/type", {{"text", std::move(*text)}, {"method", method}});
}

int key(CommandSession& session) {
  Object body{{"key", session.argument(0)}};
  const auto modifiers = session.invocation().options.find("modifier");
  if (modifiers != session.invocation().options.end()) {
    json::Array names;
    for (const std::string& name : modifiers->second) names.emplace_back(fullModifierName(name));
    body.emplace_back("modifiers", std::move(names));
  }
  return session.perform("/input/key", std::move(body));
}

int hotkey(CommandSession& session) {
  std::string text;
  for (const std::string& word : session.invocation().arguments) text += word + " ";
  const auto words = parseKeyCombination(text);
  if (!words) return session.usageError("a combination ends in a key, as in ctrl+s");
  return session.perform("/input/hotkey", {{"combo", json::Array(words->begin(), words->end())}});
}

int clipboardGet(CommandSession& session) {
  const auto answer = session.call("POST", "/clipboard/get");
  if (!answer) return answer.error();
  if (session.json()) return session.printJson(*answer);
  const Value* text = answer->find("text");
  if (!text || !text->asString())
    return session.fail(exitFailed, "bad_answer", "the companion's answer holds no text");
  const bool lineEnd = ::isatty(STDOUT_FILENO) && !text->asString()->ends_with('\n');
  return session.print(*text->asString() + (lineEnd ? "\n" : ""));
}

int clipboardSet(CommandSession& session) {
  auto text = session.textArgument(0);
  if (!text) return text.error();
  return session.perform("/clipboard/set", {{"text", std::move(*text)}});
}

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

int help(CommandSession& session) {
  std::string topic;
  for (const std::string& word : session.invocation().arguments)
    topic += (topic.empty() ? "" : " ") + word;
  const auto text = commandHelp(veskoctlCommands(), topic);
  return text ? session.print(*text) : session.usageError("no such command: " + topic);
}

constexpr std::size_t anyNumber = std::numeric_limits<std::size_t>::max();

constexpr OptionEntry globalOptions[] = {
    {"json", "", "results and errors as JSON on standard output"},
    {"timeout", "SECONDS", "how long a call may take (60)"},
    {"socket", "PATH", "the helper's socket; the consents lie beside it"},
    {"help", "", "help on the command"},
    {"version", "", "the version of this program"},
};
constexpr OptionEntry captureOptions[] = {
    {"display", "ID", "the display to capture (the main one)"},
    {"window", "NUMBER", "capture one window"},
    {"region", "X,Y,W,H", "capture a part of the display, in points from its top left"},
    {"max-dim", "PIXELS", "longest side of the image (1600)"},
};
constexpr OptionEntry photoOptions[] = {
    {"max-bytes", "NUMBER", "how long the file may be (4500000)"},
};
constexpr OptionEntry clickOptions[] = {
    {"button", "left|right", "the button (left)"},
    {"count", "1|2", "2 for a double click (1)"},
};
constexpr OptionEntry typeOptions[] = {
    {"paste", "", "by way of the clipboard, where the text then stays"},
};
constexpr OptionEntry keyOptions[] = {
    {"modifier", "NAME", "command, shift, option or control; may be repeated", true},
};

constexpr CommandEntry commands[] = {
    {"status", "", 0, 0, "show the helper, the companion and its permissions", {}, status},
    {"call",
     "METHOD PATH [JSON|-]",
     2,
     3,
     "call any route of the companion\nThe body is a JSON text, or - to read it from standard "
     "input.",
     {},
     callRoute},
    {"displays", "", 0, 0, "list the displays", {}, displays},
    {"capture", "FILE.png|-", 1, 1,
     "take a picture of the screen\nThe file is replaced in one step; - writes the image to "
     "standard "
     "output.",
     captureOptions, capture},
    {"photo", "UUID FILE|-", 2, 2,
     "fetch a picture of the photo library\nThe file as it is where it is short enough and of a "
     "type for the web, else a JPEG. It is\nreplaced in one step; - writes it to standard output.",
     photoOptions, photo},
    {"move", "X Y", 2, 2, "move the pointer", {}, move},
    {"click", "[X Y]", 0, 2, "click, where the pointer is or at a point", clickOptions, click},
    {"drag", "FROM_X FROM_Y TO_X TO_Y", 4, 4, "drag with the left button", {}, drag},
    {"scroll", "DX DY", 2, 2, "turn the wheel, in pixels", {}, scroll},
    {"type", "TEXT|-", 1, 1,
     "type a text\nWith - the text comes from standard input and shows in no list of processes.",
     typeOptions, type},
    {"key", "NAME", 1, 1,
     "press a key\nA letter, a digit, a sign such as + or ;, or one of: return, tab, space, "
     "delete,\n"
     "forward_delete, escape, home, end, page_up, page_down, arrow_left, arrow_right, arrow_up,\n"
     "arrow_down, f1 to f12.",
     keyOptions, key},
    {"hotkey",
     "COMBINATION...",
     1,
     8,
     "press a combination such as ctrl+s or command shift z",
     {},
     hotkey},
    {"clipboard get", "", 0, 0, "show the clipboard's text", {}, clipboardGet},
    {"clipboard set",
     "[TEXT|-]",
     0,
     1,
     "put a text on the clipboard\nWithout TEXT, or with -, it comes from standard input.",
     {},
     clipboardSet},
    {"consent list", "", 0, 0, "show what the companion may do", {}, consentList},
    {"consent grant",
     "KIND...",
     1,
     anyNumber,
     "allow the companion something\nKinds are those that consent list shows. screen_recording "
     "counts "
     "from the companion's next\nstart, the others at once.",
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
    {"mcp",
     "",
     0,
     0,
     "serve an assistant\nSpeaks the Model Context Protocol on standard input and output until the "
     "assistant leaves.",
     {},
     serveMcp},
    {"doctor", "", 0, 0, doctorHelp, {}, doctor},
    {"help", "[COMMAND]", 0, 2, "show this help or that of a command", {}, help},
};

constexpr std::string_view programHelp =
    "veskoctl sees and operates this desktop through Vesko Companion.\n\n"
    "exit codes: 0 done, 1 failed, 2 wrong usage, 3 helper or companion not reachable,\n"
    "4 permission missing";

}  // namespace

const CommandTable& veskoctlCommands() {
  static const CommandTable table{"veskoctl", programHelp, globalOptions, commands};
  return table;
}

int runVeskoctl(const std::vector<std::string>& words, const CommandEnvironment& environment) {
  const auto parsed = parseCommandLine(veskoctlCommands(), words);
  Invocation invocation;
  if (parsed) {
    invocation = *parsed;
  } else if (std::ranges::find(words, "--json") != words.end()) {
    invocation.options["json"];
  }
  CommandSession session(invocation, environment);
  if (!parsed) return session.usageError(parsed.error());
  if (invocation.has("version")) return session.print("veskoctl " + environment.version + "\n");
  const CommandEntry* command = invocation.command;
  if (invocation.has("help"))
    return session.print(*commandHelp(veskoctlCommands(), command ? command->name : ""));
  if (!command) return session.usageError("no command; veskoctl help lists them");
  return command->run(session);
}

}  // namespace vesko
