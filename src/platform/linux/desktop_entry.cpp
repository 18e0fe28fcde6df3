#include "platform/linux/desktop_entry.h"

#include <algorithm>
#include <utility>

#include "base/text.h"
#include "base/utf8.h"

namespace vesko {
namespace {

std::string unescaped(std::string_view value) {
  std::string text;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '\\' || i + 1 == value.size()) {
      text += value[i];
      continue;
    }
    switch (const char next = value[++i]; next) {
      case 's':
        text += ' ';
        break;
      case 'n':
        text += '\n';
        break;
      case 't':
        text += '\t';
        break;
      case 'r':
        text += '\r';
        break;
      case '\\':
        text += '\\';
        break;
      default:  // for the reader of the value, as in Exec and in lists
        text += '\\';
        text += next;
    }
  }
  return text;
}

std::vector<std::string> listOf(std::string_view value) {
  std::vector<std::string> entries;
  for (const auto entry : splitDroppingEmpty(value, ';')) entries.push_back(unescaped(entry));
  return entries;
}

/// "Name[de_AT]" as "Name" and "de_AT".
std::pair<std::string_view, std::string_view> splitKey(std::string_view key) {
  const auto bracket = key.find('[');
  if (bracket == std::string_view::npos || !key.ends_with(']')) return {key, {}};
  return {key.substr(0, bracket), key.substr(bracket + 1, key.size() - bracket - 2)};
}

/// A code that stands for something to open, or that is no longer in use, stands for nothing.
std::string expansionOf(char code, const DesktopEntry& entry, const std::filesystem::path& file) {
  switch (code) {
    case '%':
      return "%";
    case 'c':
      return entry.localizedName;
    case 'k':
      return file.native();
    default:
      return {};
  }
}

}  // namespace

std::vector<std::string> localeSuffixes(std::string_view locale) {
  const auto at = locale.find('@');
  const std::string_view modifier = at == std::string_view::npos ? "" : locale.substr(at);
  locale = locale.substr(0, std::min(at, locale.find('.')));
  const std::string_view language = locale.substr(0, locale.find('_'));
  if (language.empty() || language == "C" || language == "POSIX") return {};
  std::vector<std::string> suffixes;
  for (const std::string_view place : {locale, language}) {
    if (!modifier.empty()) suffixes.push_back(std::string(place) + std::string(modifier));
    suffixes.emplace_back(place);
  }
  return suffixes;
}

std::optional<DesktopEntry> parseDesktopEntry(std::string_view text,
                                              const std::vector<std::string>& suffixes) {
  if (!isValidUtf8(text) || text.find('\0') != std::string_view::npos) return std::nullopt;
  DesktopEntry entry;
  bool inside = false;
  bool isApplication = false;
  auto nameRank = suffixes.size();
  const auto isTrue = [](std::string_view value) { return value == "true" || value == "1"; };
  for (const std::string_view raw : splitDroppingEmpty(text, '\n')) {
    const std::string_view line = trim(raw);
    if (line.empty() || line.front() == '#') continue;
    if (line.front() == '[') {
      if (inside) break;
      inside = line == "[Desktop Entry]";
      continue;
    }
    const auto equals = line.find('=');
    if (!inside || equals == std::string_view::npos) continue;
    const auto [key, suffix] = splitKey(trim(line.substr(0, equals)));
    const std::string_view value = trim(line.substr(equals + 1));
    if (!suffix.empty()) {
      const auto rank = std::ranges::find(suffixes, suffix) - suffixes.begin();
      if (key == "Name" && static_cast<std::size_t>(rank) < nameRank) {
        nameRank = static_cast<std::size_t>(rank);
        entry.localizedName = unescaped(value);
      }
      continue;
    }
    if (key == "Type") isApplication = value == "Application";
    if (key == "Name") entry.name = unescaped(value);
    if (key == "Exec") entry.exec = unescaped(value);
    if (key == "TryExec") entry.tryExec = unescaped(value);
    if (key == "Path") entry.workingDirectory = unescaped(value);
    if (key == "StartupWMClass") entry.startupWmClass = unescaped(value);
    if (key == "OnlyShowIn") entry.onlyShowIn = listOf(value);
    if (key == "NotShowIn") entry.notShowIn = listOf(value);
    if (key == "Hidden") entry.hidden = isTrue(value);
    if (key == "NoDisplay") entry.noDisplay = isTrue(value);
    if (key == "Terminal") entry.terminal = isTrue(value);
    if (key == "DBusActivatable") entry.dbusActivatable = isTrue(value);
  }
  if (!isApplication) return std::nullopt;
  if (entry.localizedName.empty()) entry.localizedName = entry.name;
  return entry;
}

std::optional<std::vector<std::string>> commandOf(const DesktopEntry& entry,
                                                  const std::filesystem::path& file) {
  std::vector<std::string> arguments;
  std::string argument;
  bool begun = false;  // something of the argument is there, if only an empty pair of quotes
  bool quoted = false;
  const std::string_view exec = entry.exec;
  for (std::size_t i = 0; i < exec.size(); ++i) {
    const char c = exec[i];
    if (c == '"') {
      quoted = !quoted;
      begun = true;
    } else if (c == '\\' && quoted && i + 1 < exec.size()) {
      argument += exec[++i];
    } else if (isAsciiSpace(c) && !quoted) {
      if (begun) arguments.push_back(std::exchange(argument, {}));
      begun = false;
    } else if (c == '%' && i + 1 < exec.size()) {
      const std::string expansion = expansionOf(exec[++i], entry, file);
      argument += expansion;
      begun = begun || !expansion.empty();
    } else {
      argument += c;
      begun = true;
    }
  }
  if (quoted) return std::nullopt;
  if (begun) arguments.push_back(std::move(argument));
  if (arguments.empty() || arguments.front().empty()) return std::nullopt;
  return arguments;
}

}  // namespace vesko
