#include "helper/command_line.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>

namespace vesko {
namespace {

std::size_t editDistance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i + 1;
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t above = row[j + 1];
      row[j + 1] = std::min({above + 1, row[j] + 1, diagonal + (a[i] == b[j] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

/// " (did you mean ...?)" when one of the candidates is close.
template <class Range>
std::string suggestion(std::string_view word, const Range& candidates, std::string_view prefix) {
  std::string_view best;
  std::size_t bestDistance = 3;
  for (const auto& candidate : candidates) {
    const std::size_t distance = editDistance(word, candidate.name);
    if (distance < bestDistance && distance < word.size()) {
      best = candidate.name;
      bestDistance = distance;
    }
  }
  return best.empty() ? "" : fmt::format(" (did you mean {}{}?)", prefix, best);
}

const OptionEntry* findOption(const CommandTable& table, const CommandEntry* command,
                              std::string_view name) {
  const auto in = [&](std::span<const OptionEntry> options) -> const OptionEntry* {
    const auto found = std::ranges::find(options, name, &OptionEntry::name);
    return found == options.end() ? nullptr : &*found;
  };
  const OptionEntry* global = in(table.globalOptions);
  return global || !command ? global : in(command->options);
}

bool isOption(std::string_view word) {
  return word.size() > 1 && word[0] == '-' && !(word[1] >= '0' && word[1] <= '9') && word[1] != '.';
}

bool inGroup(std::string_view commandName, std::string_view group) {
  return commandName == group ||
         (commandName.starts_with(group) && commandName[group.size()] == ' ');
}

/// Takes the command's words off the front of the arguments.
std::expected<const CommandEntry*, std::string> takeCommand(const CommandTable& table,
                                                            std::vector<std::string>& words) {
  const std::string two = words.size() > 1 ? words[0] + " " + words[1] : "";
  for (const CommandEntry& command : table.commands) {
    if (command.name != words[0] && command.name != two) continue;
    words.erase(words.begin(), words.begin() + (command.name == two ? 2 : 1));
    return &command;
  }
  std::vector<CommandEntry> group;
  std::ranges::copy_if(table.commands, std::back_inserter(group),
                       [&](const CommandEntry& c) { return inGroup(c.name, words[0]); });
  if (group.empty()) {
    std::string hint = suggestion(words[0], table.commands, "");
    if (hint.empty()) hint = suggestion(two, table.commands, "");
    return std::unexpected(fmt::format("unknown command {}{}", words[0], hint));
  }
  if (words.size() > 1)
    return std::unexpected(fmt::format("unknown command {}{}", two, suggestion(two, group, "")));
  std::string names;
  for (const CommandEntry& command : group)
    names += fmt::format("{}{}", names.empty() ? "" : ", ", command.name);
  return std::unexpected(fmt::format("{} needs one of: {}", words[0], names));
}

std::string optionUsage(const OptionEntry& option) {
  return option.valueName.empty() ? fmt::format("--{}", option.name)
                                  : fmt::format("--{} {}", option.name, option.valueName);
}

void appendOptions(std::string& text, std::span<const OptionEntry> options) {
  for (const OptionEntry& option : options)
    text += fmt::format("  {:<22} {}\n", optionUsage(option), option.help);
}

std::string usage(const CommandTable& table, const CommandEntry& command) {
  return fmt::format("{} {}{}{}{}", table.program, command.name,
                     command.options.empty() ? "" : " [OPTIONS]",
                     command.arguments.empty() ? "" : " ", command.arguments);
}

}  // namespace

std::optional<std::string> Invocation::value(std::string_view option) const {
  const auto found = options.find(option);
  if (found == options.end()) return std::nullopt;
  return found->second.back();
}

std::expected<Invocation, std::string> parseCommandLine(const CommandTable& table,
                                                        std::span<const std::string> words) {
  // The command comes first, because it says which options take a value. Values of global options
  // that stand before it must not be mistaken for it.
  Invocation result;
  struct Given {
    std::string name;
    std::optional<std::string> value;
  };
  std::vector<Given> given;
  const auto locate = [&](std::string_view name) -> const OptionEntry* {
    if (const OptionEntry* known = findOption(table, nullptr, name)) return known;
    for (const CommandEntry& command : table.commands) {
      if (const OptionEntry* known = findOption(table, &command, name)) return known;
    }
    return nullptr;
  };
  bool optionsEnded = false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (optionsEnded || !isOption(word)) {
      result.arguments.push_back(word);
      continue;
    }
    if (word == "--") {
      optionsEnded = true;
      continue;
    }
    if (word == "-h") {
      given.push_back({.name = "help", .value = std::nullopt});
      continue;
    }
    if (!word.starts_with("--"))
      return std::unexpected(
          fmt::format("unknown option {}; -- goes before arguments that begin with a dash", word));
    const auto equals = word.find('=');
    Given option{.name = word.substr(2, equals == std::string::npos ? equals : equals - 2),
                 .value = std::nullopt};
    if (equals != std::string::npos) option.value = word.substr(equals + 1);
    const OptionEntry* entry = locate(option.name);
    if (entry && !entry->valueName.empty() && !option.value) {
      if (++i == words.size())
        return std::unexpected(
            fmt::format("--{} needs a value: {}", entry->name, entry->valueName));
      option.value = words[i];
    }
    given.push_back(std::move(option));
  }

  if (!result.arguments.empty()) {
    auto command = takeCommand(table, result.arguments);
    if (!command) return std::unexpected(std::move(command.error()));
    result.command = *command;
  }
  for (Given& option : given) {
    const OptionEntry* entry = findOption(table, result.command, option.name);
    if (!entry) {
      std::vector<OptionEntry> known(table.globalOptions.begin(), table.globalOptions.end());
      if (result.command)
        known.insert(known.end(), result.command->options.begin(), result.command->options.end());
      return std::unexpected(
          fmt::format("unknown option --{}{}{}", option.name,
                      result.command ? fmt::format(" of {}", result.command->name) : "",
                      suggestion(option.name, known, "--")));
    }
    if (entry->valueName.empty() && option.value)
      return std::unexpected(fmt::format("--{} takes no value", entry->name));
    auto& values = result.options[option.name];
    if (!values.empty() && !entry->valueName.empty() && !entry->repeatable)
      return std::unexpected(fmt::format("--{} is given twice", entry->name));
    values.push_back(option.value.value_or(""));
  }
  if (result.command && !result.has("help")) {
    const std::size_t count = result.arguments.size();
    if (count < result.command->minArguments || count > result.command->maxArguments)
      return std::unexpected(fmt::format(
          "{} arguments; usage: {}", count < result.command->minArguments ? "too few" : "too many",
          usage(table, *result.command)));
  }
  return result;
}

std::optional<std::string> commandHelp(const CommandTable& table, std::string_view topic) {
  std::string text;
  if (topic.empty()) {
    text = fmt::format("{}\n\nusage: {} [OPTIONS] COMMAND [ARGUMENTS]\n\ncommands:\n", table.help,
                       table.program);
    for (const CommandEntry& command : table.commands)
      text += fmt::format("  {:<16} {}\n", command.name,
                          command.help.substr(0, command.help.find('\n')));
    text += "\noptions of every command:\n";
    appendOptions(text, table.globalOptions);
    return text;
  }
  for (const CommandEntry& command : table.commands) {
    if (!inGroup(command.name, topic)) continue;
    if (!text.empty()) text += "\n";
    text += fmt::format("usage: {}\n\n{}\n", usage(table, command), command.help);
    if (!command.options.empty()) text += "\noptions:\n";
    appendOptions(text, command.options);
  }
  if (text.empty()) return std::nullopt;
  return text;
}

}  // namespace vesko
