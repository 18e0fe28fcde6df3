// Comparing texts without regard to case.
#pragma once

#include <string>
#include <string_view>

namespace vesko {

/// Two texts that differ in case alone have the same folded form (Unicode full case folding, then
/// canonical composition). `text` is valid UTF-8; any thread.
std::string foldCase(std::string_view text);

}  // namespace vesko
