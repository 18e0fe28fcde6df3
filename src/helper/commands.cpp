#include "helper/commands.h"

#include <fmt/format.h>

#include <algorithm>

#include "helper/consent_commands.h"
#include "helper/desktop_commands.h"
#include "helper/doctor/doctor.h"
#include "helper/mcp/command.h"

namespace vesko {
namespace {

using json::Object;
using json::Value;

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
                  plainText(helper->find("version")), plainText(helper->find("pid")),
                  plainText(helper->find("device_id")), plainText(helper->find("device_name")));
  text += fmt::format("companion:  {}\n",
                      announced && announced->asBool() == true ? "announced" : "not announced");
  if (const int printed = session.print(text); printed != exitOk) return printed;
  companion = session.call("GET", "/status");
  if (!companion) return companion.error();
  text.clear();
  if (const Object* entries = companion->asObject()) {
    for (const auto& [key, value] : *entries)
      text += fmt::format("  {}: {}\n", key, plainText(&value));
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

int help(CommandSession& session) {
  std::string topic;
  for (const std::string& word : session.invocation().arguments)
    topic += (topic.empty() ? "" : " ") + word;
  const auto text = commandHelp(veskoctlCommands(), topic);
  return text ? session.print(*text) : session.usageError("no such command: " + topic);
}

constexpr OptionEntry globalOptions[] = {
    {"json", "", "results and errors as JSON on standard output"},
    {"timeout", "SECONDS", "how long a call may take (60)"},
    {"socket", "PATH", "the helper's socket; the consents lie beside it"},
    {"help", "", "help on the command"},
    {"version", "", "the version of this program"},
};
constexpr CommandEntry companionCommands[] = {
    {"status", "", 0, 0, "show the helper, the companion and its permissions", {}, status},
    {"call",
     "METHOD PATH [JSON|-]",
     2,
     3,
     "call any route of the companion\nThe body is a JSON text, or - to read it from standard "
     "input.",
     {},
     callRoute},
};
constexpr CommandEntry otherCommands[] = {
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
  static const auto all = [] {
    std::vector<CommandEntry> rows(std::begin(companionCommands), std::end(companionCommands));
    for (const auto& group :
         {desktopCommands(), consentCommands(), std::span<const CommandEntry>(otherCommands)})
      rows.insert(rows.end(), group.begin(), group.end());
    return rows;
  }();
  static const CommandTable table{"veskoctl", programHelp, globalOptions, all};
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
