#include "tools/photo_identifiers.h"

#include <algorithm>
#include <limits>

namespace vesko {
namespace {

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool before(std::string_view a, std::string_view b) {
  return std::ranges::lexicographical_compare(a, b, {}, lower, lower);
}

bool same(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, {}, lower, lower);
}

}  // namespace

std::string_view AssetIdentifierIndex::at(std::uint32_t begin) const {
  return texts_.c_str() + begin;
}

PhotoLibrary::Result<void> AssetIdentifierIndex::read(PhotoLibrary& library) {
  if (complete_) return {};
  std::string texts;
  std::vector<std::uint32_t> order;
  auto visited = library.forEachIdentifier([&](std::string_view identifier) {
    if (identifier.contains('\0') ||
        texts.size() + identifier.size() >= std::numeric_limits<std::uint32_t>::max())
      return;
    order.push_back(static_cast<std::uint32_t>(texts.size()));
    texts += identifier;
    texts += '\0';
  });
  if (!visited) return visited;
  texts.shrink_to_fit();
  order.shrink_to_fit();
  texts_ = std::move(texts);
  order_ = std::move(order);
  std::ranges::sort(order_, [this](std::uint32_t a, std::uint32_t b) VESKO_REQUIRES(mutex_) {
    if (before(at(a), at(b))) return true;
    return a < b && !before(at(b), at(a));
  });
  complete_ = true;
  return {};
}

PhotoLibrary::Result<std::optional<std::string>> AssetIdentifierIndex::find(
    PhotoLibrary& library, std::string_view identifier) {
  const MutexLock lock(mutex_);
  if (auto complete = read(library); !complete) return std::unexpected(complete.error());
  const auto from = [this](std::string_view text) VESKO_REQUIRES(mutex_) {
    return std::ranges::lower_bound(order_, text, before,
                                    [this](std::uint32_t begin)
                                        VESKO_REQUIRES(mutex_) { return at(begin); });
  };
  if (const auto whole = from(identifier); whole != order_.end() && same(at(*whole), identifier))
    return std::string(at(*whole));
  if (identifier.contains('/')) return std::nullopt;
  // Identifiers that go on after a slash lie together; the first one seen counts.
  const std::string prefix = std::string(identifier) + '/';
  auto best = order_.end();
  for (auto entry = from(prefix); entry != order_.end(); ++entry) {
    if (!same(at(*entry).substr(0, prefix.size()), prefix)) break;
    if (best == order_.end() || *entry < *best) best = entry;
  }
  if (best == order_.end()) return std::nullopt;
  return std::string(at(*best));
}

}  // namespace vesko
