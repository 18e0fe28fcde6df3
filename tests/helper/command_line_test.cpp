#include "helper/command_line.h"

#include <gtest/gtest.h>

#include "helper/commands.h"
#include "helper/key_combination.h"

namespace vesko {
namespace {

std::string describe(const std::expected<Invocation, std::string>& parsed) {
  if (!parsed) return "error: " + parsed.error();
  std::string text = parsed->command ? std::string(parsed->command->name) : "none";
  for (const auto& argument : parsed->arguments) text += " [" + argument + "]";
  for (const auto& [name, values] : parsed->options) {
    text += " " + name;
    for (const auto& value : values) text += "=" + value;
  }
  return text;
}

TEST(CommandLineTest, ReadsWordsByTheTable) {
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{}, "none"},
      {{"--version"}, "none version="},
      {{"status", "--json"}, "status json="},
      {{"--socket", "status", "status"}, "status socket=status"},
      {{"--timeout=5", "move", "-5", "-.5"}, "move [-5] [-.5] timeout=5"},
      {{"clipboard", "get"}, "clipboard get"},
      {{"type", "--", "--paste"}, "type [--paste]"},
      {{"type", "-"}, "type [-]"},
      {{"type", "get"}, "type [get]"},
      {{"key", "--modifier", "shift", "a", "--modifier=alt"}, "key [a] modifier=shift=alt"},
      {{"click", "--help"}, "click help="},
      {{"move", "--help", "1"}, "move [1] help="},
      {{"move", "-h"}, "move help="},
      {{"clik"}, "error: unknown command clik (did you mean click?)"},
      {{"clipboard", "gte"}, "error: unknown command clipboard gte (did you mean clipboard get?)"},
      {{"clipboard", "gets"},
       "error: unknown command clipboard gets (did you mean clipboard get?)"},
      {{"consent"},
       "error: consent needs one of: consent list, consent grant, consent revoke, consent reset, "
       "consent request"},
      {{"xyzzy"}, "error: unknown command xyzzy"},
      {{"click", "--conut", "2"}, "error: unknown option --conut of click (did you mean --count?)"},
      {{"displays", "--paste"}, "error: unknown option --paste of displays"},
      {{"type", "-b"}, "error: unknown option -b; -- goes before arguments that begin with a dash"},
      {{"click", "--count"}, "error: --count needs a value: 1|2"},
      {{"click", "--count=1", "--count=2"}, "error: --count is given twice"},
      {{"status", "--json=yes"}, "error: --json takes no value"},
      {{"move", "1"}, "error: too few arguments; usage: veskoctl move X Y"},
      {{"displays", "1"}, "error: too many arguments; usage: veskoctl displays"},
  };
  for (const auto& [words, expected] : cases) {
    EXPECT_EQ(describe(parseCommandLine(veskoctlCommands(), words)), expected);
  }
}

TEST(CommandLineTest, EveryCommandHasHelp) {
  const CommandTable& table = veskoctlCommands();
  const std::string overview = *commandHelp(table, "");
  for (const CommandEntry& command : table.commands) {
    SCOPED_TRACE(command.name);
    EXPECT_NE(overview.find(command.name), std::string::npos);
    const auto help = commandHelp(table, command.name);
    ASSERT_TRUE(help);
    for (const OptionEntry& option : command.options)
      EXPECT_NE(help->find("--" + std::string(option.name)), std::string::npos);
  }
  EXPECT_NE(commandHelp(table, "clipboard")->find("clipboard set"), std::string::npos);
  EXPECT_FALSE(commandHelp(table, "clip"));
}

TEST(KeyCombinationTest, ReadsWhatPeopleType) {
  using Words = std::vector<std::string>;
  const std::pair<const char*, std::optional<Words>> cases[] = {
      {"ctrl+s", Words{"control", "s"}},
      {"command s", Words{"command", "s"}},
      {"Cmd+Shift+Z", Words{"command", "shift", "z"}},
      {"alt + f4", Words{"option", "f4"}},
      {"opt+ctrl+page_up", Words{"option", "control", "page_up"}},
      {"ctrl++", Words{"control", "+"}},
      {"ctrl +", Words{"control", "+"}},
      {"+", Words{"+"}},
      {"ctrl+-", Words{"control", "-"}},
      {"f5", Words{"f5"}},
      {"ctrl+", std::nullopt},
      {"", std::nullopt},
      {"  ", std::nullopt},
  };
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    EXPECT_EQ(parseKeyCombination(text), expected);
  }
}

}  // namespace
}  // namespace vesko
