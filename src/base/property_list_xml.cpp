#include <algorithm>
#include <charconv>
#include <cstdint>
#include <iterator>
#include <optional>
#include <span>
#include <utility>

#include "base/base64.h"
#include "base/property_list_format.h"
#include "base/text.h"
#include "base/utf8.h"

namespace vesko {
namespace {

using Result = std::expected<PropertyList, std::string>;

// The characters of XML 1.0, section 2.2.
bool isXmlCharacter(char32_t c) {
  return c == '\t' || c == '\n' || c == '\r' || (c >= 0x20 && c < 0xD800) ||
         (c >= 0xE000 && c < 0xFFFE) || (c >= 0x10000 && c <= 0x10FFFF);
}

class Reader {
 public:
  explicit Reader(std::string_view text) : rest_(text) {}

  Result read() {
    take("\xEF\xBB\xBF");
    auto tag = nextTag();
    const bool wrapped = tag && !tag->closing && tag->name == "plist";
    if (wrapped) tag = tag->empty ? std::nullopt : nextTag();
    if (!tag) return damaged();
    auto root = value(*tag, 0);
    if (!root) return root;
    if (wrapped && !closes("plist")) return damaged();
    if (!skipMisc() || !rest_.empty()) return damaged();
    return root;
  }

 private:
  struct Tag {
    std::string_view name;
    bool closing = false;
    bool empty = false;
  };

  static std::unexpected<std::string> damaged() {
    return std::unexpected(std::string("damaged XML list"));
  }

  bool take(std::string_view prefix) {
    if (!rest_.starts_with(prefix)) return false;
    rest_.remove_prefix(prefix.size());
    return true;
  }

  bool skipPast(std::string_view end) {
    const auto found = rest_.find(end);
    if (found == std::string_view::npos) return false;
    rest_.remove_prefix(found + end.size());
    return true;
  }

  // Up to the ">" outside of quotation marks and of a document type's brackets.
  std::optional<std::string_view> markup() {
    char quote = 0;
    int brackets = 0;
    for (std::size_t i = 0; i < rest_.size(); ++i) {
      const char c = rest_[i];
      if (quote) {
        if (c == quote) quote = 0;
      } else if (c == '"' || c == '\'') {
        quote = c;
      } else if (c == '[') {
        ++brackets;
      } else if (c == ']') {
        --brackets;
      } else if (c == '>' && brackets <= 0) {
        const auto content = rest_.substr(0, i);
        rest_.remove_prefix(i + 1);
        return content;
      }
    }
    return std::nullopt;
  }

  // White space, comments, processing instructions and the document type.
  bool skipMisc() {
    for (;;) {
      while (!rest_.empty() && isAsciiSpace(rest_.front())) rest_.remove_prefix(1);
      if (take("<!--")) {
        if (!skipPast("-->")) return false;
      } else if (take("<?")) {
        if (!skipPast("?>")) return false;
      } else if (take("<!DOCTYPE")) {
        if (!markup()) return false;
      } else {
        return true;
      }
    }
  }

  std::optional<Tag> nextTag() {
    if (!skipMisc() || !take("<")) return std::nullopt;
    Tag tag{.name = {}, .closing = take("/"), .empty = false};
    auto content = markup();
    if (!content) return std::nullopt;
    if (content->ends_with('/')) {
      tag.empty = true;
      content->remove_suffix(1);
    }
    tag.name = content->substr(0, content->find_first_of(" \t\r\n"));
    return tag;
  }

  bool closes(std::string_view name) {
    const auto tag = nextTag();
    return tag && tag->closing && tag->name == name;
  }

  Result value(const Tag& tag, std::size_t depth) {
    if (depth > PropertyList::maxDepth) return std::unexpected("nested too deeply");
    if (tag.closing) return damaged();
    if (tag.name == "dict") return dictionary(tag, depth);
    if (tag.name == "array") return array(tag, depth);
    const auto content = text(tag);
    if (!content) return damaged();
    return scalar(tag.name, *content);
  }

  Result scalar(std::string_view name, const std::string& content) const {
    if (name == "string") return PropertyList(content);
    if (name == "true" || name == "false") return PropertyList(name == "true");
    if (name == "integer") return integer(trim(content));
    if (name == "real") return real(trim(content));
    if (name == "date") return PropertyList();
    if (name != "data") return std::unexpected("an unknown element");
    std::string packed = content;
    std::erase_if(packed, isAsciiSpace);
    auto bytes = decodeBase64(packed);
    if (!bytes) return std::unexpected("malformed data");
    return PropertyList(PropertyList::Data{std::move(*bytes)});
  }

  static Result integer(std::string_view digits) {
    const bool negative = digits.starts_with('-');
    if (negative || digits.starts_with('+')) digits.remove_prefix(1);
    int base = 10;
    if (digits.starts_with("0x") || digits.starts_with("0X")) {
      digits.remove_prefix(2);
      base = 16;
    }
    std::uint64_t magnitude = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, magnitude, base);
    if (stop != end || digits.empty() || error == std::errc::invalid_argument)
      return std::unexpected("malformed integer");
    constexpr std::uint64_t limit = std::uint64_t{1} << 63;
    const bool fits = magnitude < limit || (negative && magnitude == limit);
    if (error != std::errc() || !fits) return PropertyList();
    return PropertyList(static_cast<std::int64_t>(negative ? 0 - magnitude : magnitude));
  }

  static Result real(std::string_view digits) {
    if (digits.starts_with('+')) digits.remove_prefix(1);
    double number = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, number);
    if (stop != end || digits.empty() || error != std::errc())
      return std::unexpected("malformed real number");
    return PropertyList(number);
  }

  Result array(const Tag& tag, std::size_t depth) {
    PropertyList::Array elements;
    while (!tag.empty) {
      const auto next = nextTag();
      if (!next) return damaged();
      if (next->closing && next->name == "array") break;
      auto element = value(*next, depth + 1);
      if (!element) return element;
      elements.push_back(std::move(*element));
    }
    return PropertyList(std::move(elements));
  }

  Result dictionary(const Tag& tag, std::size_t depth) {
    PropertyList::Dictionary entries;
    while (!tag.empty) {
      auto next = nextTag();
      if (!next) return damaged();
      if (next->closing && next->name == "dict") break;
      if (next->closing || next->name != "key") return damaged();
      auto key = text(*next);
      if (key) next = nextTag();
      if (!key || !next) return damaged();
      auto entry = value(*next, depth + 1);
      if (!entry) return entry;
      entries.insert_or_assign(std::move(*key), std::move(*entry));
    }
    return PropertyList(std::move(entries));
  }

  // The character data of an element, up to and with its end tag.
  std::optional<std::string> text(const Tag& tag) {
    std::string content;
    if (tag.empty) return content;
    for (;;) {
      const auto stop = rest_.find_first_of("<&\r");
      if (stop == std::string_view::npos) return std::nullopt;
      content += rest_.substr(0, stop);
      rest_.remove_prefix(stop);
      if (take("\r\n") || take("\r")) {
        content += '\n';  // XML 1.0, section 2.11
      } else if (take("<![CDATA[")) {
        const auto end = rest_.find("]]>");
        if (end == std::string_view::npos) return std::nullopt;
        content += rest_.substr(0, end);
        rest_.remove_prefix(end + 3);
      } else if (take("<!--")) {
        if (!skipPast("-->")) return std::nullopt;
      } else if (take("&")) {
        if (!reference(content)) return std::nullopt;
      } else {
        if (!closes(tag.name)) return std::nullopt;
        return content;
      }
    }
  }

  bool reference(std::string& content) {
    const auto end = rest_.substr(0, 12).find(';');
    if (end == std::string_view::npos) return false;
    std::string_view name = rest_.substr(0, end);
    rest_.remove_prefix(end + 1);
    if (name.starts_with('#')) {
      name.remove_prefix(1);
      const bool hexadecimal = name.starts_with('x');
      if (hexadecimal) name.remove_prefix(1);
      std::uint32_t number = 0;
      const char* last = name.data() + name.size();
      const auto [stop, error] = std::from_chars(name.data(), last, number, hexadecimal ? 16 : 10);
      if (error != std::errc() || stop != last || !isXmlCharacter(number)) return false;
      appendUtf8(content, number);
      return true;
    }
    constexpr std::pair<std::string_view, char> entities[] = {
        {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
    const auto* found = std::find_if(std::begin(entities), std::end(entities),
                                     [&](const auto& entity) { return entity.first == name; });
    if (found == std::end(entities)) return false;
    content += found->second;
    return true;
  }

  std::string_view rest_;
};

class Writer {
 public:
  void write(const PropertyList& list, std::size_t depth) {
    if (const auto* flag = list.as<bool>()) {
      line(depth, *flag ? "<true/>" : "<false/>");
    } else if (const auto* number = list.as<std::int64_t>()) {
      line(depth, "<integer>" + std::to_string(*number) + "</integer>");
    } else if (const auto* real = list.as<double>()) {
      char digits[32];
      const auto end = std::to_chars(digits, digits + sizeof digits, *real).ptr;
      line(depth, "<real>" + std::string(digits, end) + "</real>");
    } else if (const auto* text = list.text()) {
      line(depth, "<string>" + escaped(*text) + "</string>");
    } else if (const auto* data = list.as<PropertyList::Data>()) {
      std::string packed;
      appendBase64(packed, std::as_bytes(std::span(data->bytes)));
      line(depth, "<data>" + packed + "</data>");
    } else if (const auto* elements = list.as<PropertyList::Array>()) {
      line(depth, "<array>");
      for (const auto& element : *elements) write(element, depth + 1);
      line(depth, "</array>");
    } else if (const auto* entries = list.dictionary()) {
      line(depth, "<dict>");
      for (const auto& [key, entry] : *entries) {
        if (entry == PropertyList()) continue;
        line(depth + 1, "<key>" + escaped(key) + "</key>");
        write(entry, depth + 1);
      }
      line(depth, "</dict>");
    }
  }

  std::string out;

 private:
  void line(std::size_t depth, std::string_view text) {
    out.append(depth, '\t');
    out += text;
    out += '\n';
  }

  static std::string escaped(std::string_view text) {
    std::string result;
    while (!text.empty()) {
      std::size_t length = 1;
      while (length < text.size() && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80)
        ++length;
      const auto character = decodeUtf8(text.substr(0, length));
      const bool expressible =
          character && character->size() == 1 && isXmlCharacter(character->front());
      if (!expressible) {
        result += "\xEF\xBF\xBD";
      } else if (text[0] == '&') {
        result += "&amp;";
      } else if (text[0] == '<') {
        result += "&lt;";
      } else if (text[0] == '>') {
        result += "&gt;";
      } else if (text[0] == '\r') {
        result += "&#13;";  // a plain one would be read as a line feed
      } else {
        result += text.substr(0, length);
      }
      text.remove_prefix(length);
    }
    return result;
  }
};

}  // namespace

std::expected<PropertyList, std::string> parseXmlPropertyList(std::string_view bytes) {
  const auto foreign = [](char c) { return !isXmlCharacter(static_cast<unsigned char>(c)); };
  if (!isValidUtf8(bytes) || std::any_of(bytes.begin(), bytes.end(), foreign))
    return std::unexpected("not a text in UTF-8");
  return Reader(bytes).read();
}

std::string PropertyList::toXml() const {
  if (*this == PropertyList()) return {};
  Writer writer;
  writer.out =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
      "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
      "<plist version=\"1.0\">\n";
  writer.write(*this, 0);
  writer.out += "</plist>\n";
  return std::move(writer.out);
}

}  // namespace vesko
