// Command lines described by tables: the same table drives parsing, help and error messages.
// Any thread.
#pragma once

#include <cstddef>
#include <expected>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vesko {

struct OptionEntry {
  std::string_view name;       ///< without the dashes
  std::string_view valueName;  ///< empty for one that takes no value
  std::string_view help;
  bool repeatable = false;
};

class CommandSession;

struct CommandEntry {
  std::string_view name;       ///< one word, or two for a command of a group
  std::string_view arguments;  ///< as help shows them
  std::size_t minArguments;
  std::size_t maxArguments;
  std::string_view help;
  std::span<const OptionEntry> options;
  /// Carries it out and returns the exit code.
  int (*run)(CommandSession& session);
};

struct CommandTable {
  std::string_view program;
  std::string_view help;
  std::span<const OptionEntry> globalOptions;
  std::span<const CommandEntry> commands;
};

struct Invocation {
  const CommandEntry* command = nullptr;  ///< null when none is named
  std::vector<std::string> arguments;
  std::map<std::string, std::vector<std::string>, std::less<>> options;

  bool has(std::string_view option) const { return options.contains(option); }
  /// The last value given.
  std::optional<std::string> value(std::string_view option) const;
};

/// Options may stand anywhere, "--option=value" works too, "-h" is "--help", "--" ends them, and
/// words such as "-5" and "-" are arguments. With --help the number of arguments is not checked.
/// The error is the message to show.
std::expected<Invocation, std::string> parseCommandLine(const CommandTable& table,
                                                        std::span<const std::string> words);

/// The whole program's help, or that of the commands whose name begins with `topic`; nothing when
/// there is none.
std::optional<std::string> commandHelp(const CommandTable& table, std::string_view topic);

}  // namespace vesko
