#include "helper/mcp/element_refs.h"

#include <fmt/format.h>

#include "base/text.h"

namespace vesko::mcp {

std::string ElementRefs::refOf(const std::string& path) {
  const MutexLock lock(mutex_);
  if (const auto known = numbers_.find(path); known != numbers_.end())
    return fmt::format("e{}", known->second);
  const std::uint64_t number = first_ + paths_.size();
  numbers_.emplace(paths_.emplace_back(path), number);
  bytes_ += path.size();
  while (paths_.size() > limits_.count || (bytes_ > limits_.bytes && paths_.size() > 1)) {
    bytes_ -= paths_.front().size();
    numbers_.erase(paths_.front());
    paths_.pop_front();
    ++first_;
  }
  return fmt::format("e{}", number);
}

std::expected<std::string, std::string> ElementRefs::pathOf(const std::string& element) {
  if (element.starts_with("AX")) return element;
  const auto number =
      element.starts_with('e') ? parseDecimal(std::string_view(element).substr(1)) : std::nullopt;
  if (!number || *number < 1)
    return std::unexpected(
        "element: expected a reference such as e12 from desktop_snapshot or find_elements, or an "
        "element's whole path.");
  const MutexLock lock(mutex_);
  const auto wanted = static_cast<std::uint64_t>(*number);
  if (wanted >= first_ && wanted - first_ < paths_.size()) return paths_[wanted - first_];
  return std::unexpected(fmt::format(
      "The reference e{} {}. Take a new desktop_snapshot and use a reference from there.", wanted,
      wanted < first_ ? "is too old" : "was never given by this server"));
}

}  // namespace vesko::mcp
