#include "tools/element_path.h"

#include <algorithm>
#include <charconv>

#include "base/utf8.h"

namespace vesko {
namespace {

// Longer titles are rather texts; they would repeat in the path of every descendant.
constexpr std::size_t maxEncodedTitle = 1024;

constexpr std::string_view titlePrefix = "title=";

bool staysInTitle(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view(" -_.,:()").contains(c);
}

std::optional<int> hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return std::nullopt;
}

template <class Integer>
std::optional<Integer> parseWhole(std::string_view text) {
  Integer value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

/// "Role[qualifier]" in its two parts.
struct Bracketed {
  std::string_view role;
  std::string_view qualifier;
};

std::optional<Bracketed> parseBracketed(std::string_view segment) {
  const auto open = segment.find('[');
  if (open == 0 || open == std::string_view::npos || !segment.ends_with(']')) return std::nullopt;
  return Bracketed{segment.substr(0, open), segment.substr(open + 1, segment.size() - open - 2)};
}

std::optional<RunningApplication> parseApplication(std::string_view segment) {
  const auto parts = parseBracketed(segment);
  if (!parts || parts->role != "AXApplication") return std::nullopt;
  std::string_view text = parts->qualifier;
  constexpr std::string_view pidKey = "pid=", bundleKey = ",bundle=", tokenKey = ",token=";
  const auto bundle = text.find(bundleKey);
  const auto token = text.rfind(tokenKey);
  if (!text.starts_with(pidKey) || bundle == std::string_view::npos ||
      token == std::string_view::npos || token < bundle + bundleKey.size())
    return std::nullopt;
  const auto pid = parseWhole<pid_t>(text.substr(pidKey.size(), bundle - pidKey.size()));
  if (!pid || *pid <= 0) return std::nullopt;
  const auto bundleStart = bundle + bundleKey.size();
  return RunningApplication{
      .pid = *pid,
      .bundleIdentifier = std::string(text.substr(bundleStart, token - bundleStart)),
      .startToken = std::string(text.substr(token + tokenKey.size()))};
}

std::optional<ElementPath::Segment> parseSegment(std::string_view text) {
  const auto parts = parseBracketed(text);
  if (!parts) return std::nullopt;
  ElementPath::Segment segment{.role = std::string(parts->role), .title = {}};
  if (parts->qualifier.starts_with(titlePrefix)) {
    segment.title = percentDecodeTitle(parts->qualifier.substr(titlePrefix.size()));
    if (!segment.title) return std::nullopt;
    return segment;
  }
  const auto index = parseWhole<std::size_t>(parts->qualifier);
  if (!index) return std::nullopt;
  segment.index = *index;
  return segment;
}

}  // namespace

std::string percentEncodeTitle(std::string_view title) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  std::string encoded;
  encoded.reserve(title.size());
  for (const char c : title) {
    if (staysInTitle(c)) {
      encoded += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      encoded += '%';
      encoded += digits[byte >> 4];
      encoded += digits[byte & 15];
    }
  }
  return encoded;
}

std::optional<std::string> percentDecodeTitle(std::string_view encoded) {
  std::string title;
  title.reserve(encoded.size());
  for (std::size_t i = 0; i < encoded.size(); ++i) {
    if (encoded[i] != '%') {
      title += encoded[i];
      continue;
    }
    if (i + 2 >= encoded.size()) return std::nullopt;
    const auto high = hexDigit(encoded[i + 1]), low = hexDigit(encoded[i + 2]);
    if (!high || !low) return std::nullopt;
    title += static_cast<char>(*high << 4 | *low);
    i += 2;
  }
  if (!isValidUtf8(title)) return std::nullopt;
  return title;
}

std::string applicationSegment(const RunningApplication& application) {
  return "AXApplication[pid=" + std::to_string(application.pid) +
         ",bundle=" + application.bundleIdentifier + ",token=" + application.startToken + "]";
}

std::string elementSegment(std::string_view role, const std::optional<std::string>& uniqueTitle,
                           std::size_t indexInRole) {
  std::string segment(role);
  if (uniqueTitle && !uniqueTitle->empty() && uniqueTitle->size() <= maxEncodedTitle) {
    const std::string encoded = percentEncodeTitle(*uniqueTitle);
    if (encoded.size() <= maxEncodedTitle)
      return segment.append("[").append(titlePrefix).append(encoded).append("]");
  }
  return segment.append("[").append(std::to_string(indexInRole)).append("]");
}

std::optional<ElementPath> ElementPath::parse(std::string_view text) {
  // Counted first: a path of a million segments costs no more than this look.
  if (static_cast<std::size_t>(std::ranges::count(text, '/')) > maxElementDepth)
    return std::nullopt;
  ElementPath path;
  bool first = true;
  while (true) {
    const auto slash = text.find('/');
    const std::string_view part = text.substr(0, slash);
    if (!first) {
      auto segment = parseSegment(part);
      if (!segment) return std::nullopt;
      path.segments.push_back(std::move(*segment));
    } else if (part != systemWideSegment) {
      path.application = parseApplication(part);
      if (!path.application) return std::nullopt;
    }
    first = false;
    if (slash == std::string_view::npos) return path;
    text.remove_prefix(slash + 1);
  }
}

}  // namespace vesko
