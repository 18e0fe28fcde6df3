// Property lists from other people's bundles. Whatever is read can be written, and what was written
// is read as the same list: one writing may drop unused types and replace inexpressible characters,
// a second one changes nothing.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "base/property_list.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using vesko::PropertyList;
  const auto list = PropertyList::parse({reinterpret_cast<const char*>(data), size});
  if (!list) return 0;
  const std::string xml = list->toXml();
  if (xml.empty() || xml.size() > PropertyList::maxBytes) return 0;
  const auto again = PropertyList::parse(xml);
  // Compared as texts: a real number that is not a number differs from itself.
  if (!again) std::abort();
  if (const auto once = again->toXml(); once != xml) {
    const auto twice = PropertyList::parse(once);
    if (!twice || twice->toXml() != once) std::abort();
  }
  return 0;
}
