#include "base/case_fold.h"

#include <utf8proc.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "base/text.h"

namespace vesko {

std::string foldCase(std::string_view text) {
  if (std::ranges::all_of(text, [](char c) { return static_cast<unsigned char>(c) < 0x80; }))
    return lowerAscii(text);
  utf8proc_uint8_t* folded = nullptr;
  const auto length = utf8proc_map(
      reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
      static_cast<utf8proc_ssize_t>(text.size()), &folded,
      static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE | UTF8PROC_CASEFOLD));
  const std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owner(folded, &std::free);
  if (length < 0) return std::string(text);
  return {reinterpret_cast<const char*>(folded), static_cast<std::size_t>(length)};
}

}  // namespace vesko
