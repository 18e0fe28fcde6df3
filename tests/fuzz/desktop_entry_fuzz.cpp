// Desktop entries: texts are whole, and a command can be handed to the system as it is.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/utf8.h"
#include "platform/linux/desktop_entry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vesko;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto suffixes = localeSuffixes(text.substr(0, text.find('\n')));
  if (suffixes.size() > 4) std::abort();
  const auto entry = parseDesktopEntry(text, localeSuffixes("de_AT"));
  if (!entry) return 0;
  if (!isValidUtf8(entry->name) || !isValidUtf8(entry->localizedName) || !isValidUtf8(entry->exec))
    std::abort();
  const auto command = commandOf(*entry, "/usr/share/applications/x.desktop");
  if (!command) return 0;
  if (command->empty() || command->front().empty()) std::abort();
  for (const std::string& argument : *command) {
    if (argument.find('\0') != std::string::npos) std::abort();
  }
  return 0;
}
