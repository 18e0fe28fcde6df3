#include "base/json.h"

#include <boost/json/basic_parser_impl.hpp>
#include <charconv>
#include <cmath>

#include "base/utf8.h"

namespace vesko::json {
namespace {

// Receives the parser's events and builds values of our own, so that no document of the library's
// stands in between.
class Builder {
 public:
  static constexpr std::size_t max_object_size = std::size_t(-1);
  static constexpr std::size_t max_array_size = std::size_t(-1);
  static constexpr std::size_t max_key_size = std::size_t(-1);
  static constexpr std::size_t max_string_size = std::size_t(-1);

  using Error = boost::json::error_code;
  using Text = boost::json::string_view;

  bool on_document_begin(Error&) { return true; }
  bool on_document_end(Error&) { return true; }
  bool on_object_begin(Error&) { return begin(Object()); }
  bool on_object_end(std::size_t, Error&) { return end(); }
  bool on_array_begin(Error&) { return begin(Array()); }
  bool on_array_end(std::size_t, Error&) { return end(); }
  bool on_key_part(Text part, std::size_t, Error&) { return append(part); }
  bool on_key(Text part, std::size_t, Error&) {
    append(part);
    keys_.push_back(std::exchange(text_, {}));
    return true;
  }
  bool on_string_part(Text part, std::size_t, Error&) { return append(part); }
  bool on_string(Text part, std::size_t, Error&) {
    append(part);
    return add(std::exchange(text_, {}));
  }
  bool on_number_part(Text, Error&) { return true; }
  bool on_int64(std::int64_t value, Text, Error&) { return add(value); }
  bool on_uint64(std::uint64_t value, Text, Error&) { return add(value); }
  bool on_double(double value, Text text, Error& error) {
    if (!std::isfinite(value)) {
      error = boost::json::error::exponent_overflow;
      return false;
    }
    // The library's value may be off by the last digits, and would be written as another number.
    std::from_chars(text.data(), text.data() + text.size(), value);
    return add(value);
  }
  bool on_bool(bool value, Error&) { return add(value); }
  bool on_null(Error&) { return add(nullptr); }
  bool on_comment_part(Text, Error&) { return true; }
  bool on_comment(Text, Error&) { return true; }

  Value take() { return std::move(root_); }

 private:
  bool append(Text part) {
    text_.append(part.data(), part.size());
    return true;
  }
  bool begin(Value container) {
    open_.push_back(std::move(container));
    return true;
  }
  bool end() {
    Value done = std::move(open_.back());
    open_.pop_back();
    return add(std::move(done));
  }
  bool add(Value value) {
    if (open_.empty()) {
      root_ = std::move(value);
    } else if (Array* array = open_.back().asArray()) {
      array->push_back(std::move(value));
    } else {
      open_.back().asObject()->emplace_back(std::move(keys_.back()), std::move(value));
      keys_.pop_back();
    }
    return true;
  }

  Value root_;
  std::vector<Value> open_;
  std::vector<std::string> keys_;
  std::string text_;
};

}  // namespace

std::optional<bool> Value::asBool() const {
  if (const auto* value = std::get_if<bool>(&data_)) return *value;
  return std::nullopt;
}

std::optional<std::int64_t> Value::asInteger() const {
  if (const auto* value = std::get_if<std::int64_t>(&data_)) return *value;
  if (const auto* value = std::get_if<double>(&data_)) {
    // 2^63 itself is a double, but no int64.
    const bool fits = *value >= -9223372036854775808.0 && *value < 9223372036854775808.0;
    if (fits && std::trunc(*value) == *value) return static_cast<std::int64_t>(*value);
  }
  return std::nullopt;
}

std::optional<double> Value::asDouble() const {
  if (const auto* value = std::get_if<double>(&data_)) return *value;
  if (const auto* value = std::get_if<std::int64_t>(&data_)) return static_cast<double>(*value);
  if (const auto* value = std::get_if<std::uint64_t>(&data_)) return static_cast<double>(*value);
  return std::nullopt;
}

const Value* Value::find(std::string_view key) const {
  const Object* object = asObject();
  if (!object) return nullptr;
  for (auto member = object->rbegin(); member != object->rend(); ++member) {
    if (member->first == key) return &member->second;
  }
  return nullptr;
}

std::expected<Value, std::string> parse(std::string_view text, std::size_t depth) {
  boost::json::parse_options options;
  options.max_depth = depth;
  boost::json::basic_parser<Builder> parser(options);
  boost::json::error_code error;
  const std::size_t used = parser.write_some(false, text.data(), text.size(), error);
  if (error) return std::unexpected(error.message());
  if (!parser.done()) return std::unexpected(std::string("incomplete JSON"));
  // The parser stops behind the value and the white space after it.
  if (used != text.size()) return std::unexpected(std::string("extra data"));
  return parser.handler().take();
}

void Writer::separate() {
  if (needsComma_) out_.push_back(',');
  needsComma_ = true;
}

void Writer::open(char bracket) {
  separate();
  out_.push_back(bracket);
  needsComma_ = false;
}

void Writer::close(char bracket) {
  out_.push_back(bracket);
  needsComma_ = true;
}

void Writer::key(std::string_view name) {
  separate();
  quoted(name);
  out_.push_back(':');
  needsComma_ = false;
}

void Writer::null() {
  separate();
  out_ += "null";
}

void Writer::value(bool value) {
  separate();
  out_ += value ? "true" : "false";
}

namespace {
template <class Number>
void appendNumber(std::string& out, Number value) {
  char digits[32];
  out.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}
}  // namespace

void Writer::value(std::int64_t value) {
  separate();
  appendNumber(out_, value);
}

void Writer::value(std::uint64_t value) {
  separate();
  appendNumber(out_, value);
}

void Writer::value(double value) {
  separate();
  if (!std::isfinite(value)) {
    ok_ = false;
    return;
  }
  // "-0" would come back as the integer 0.
  appendNumber(out_, value == 0 ? 0.0 : value);
}

void Writer::value(std::string_view text) {
  separate();
  quoted(text);
}

void Writer::value(const Value& value) {
  struct Visitor {
    Writer& writer;
    void operator()(std::monostate) const { writer.null(); }
    void operator()(bool flag) const { writer.value(flag); }
    void operator()(std::int64_t number) const { writer.value(number); }
    void operator()(std::uint64_t number) const { writer.value(number); }
    void operator()(double number) const { writer.value(number); }
    void operator()(const std::string& text) const { writer.value(std::string_view(text)); }
    void operator()(const Array& array) const {
      writer.beginArray();
      for (const Value& element : array) writer.value(element);
      writer.endArray();
    }
    void operator()(const Object& object) const {
      writer.beginObject();
      for (const auto& [key, member] : object) {
        writer.key(key);
        writer.value(member);
      }
      writer.endObject();
    }
  };
  std::visit(Visitor{*this}, value.data());
}

void Writer::quoted(std::string_view text) {
  constexpr char digits[] = "0123456789abcdef";
  const auto escapeUnit = [this](unsigned unit) {
    out_ += "\\u";
    for (int shift = 12; shift >= 0; shift -= 4) out_.push_back(digits[unit >> shift & 15]);
  };
  if (!isValidUtf8(text)) {
    ok_ = false;
    return;
  }
  out_.push_back('"');
  std::size_t plain = 0;  // start of the run that is copied as it is
  for (std::size_t i = 0; i < text.size();) {
    const auto c = static_cast<unsigned char>(text[i]);
    const bool special =
        c < 0x20 || c == '"' || c == '\\' || (c >= 0x80 && escaping_ == Escaping::ascii);
    if (!special) {
      ++i;
      continue;
    }
    out_.append(text, plain, i - plain);
    std::size_t length = 1;
    if (c == '"' || c == '\\') {
      out_.push_back('\\');
      out_.push_back(static_cast<char>(c));
    } else if (c == '\n') {
      out_ += "\\n";
    } else if (c == '\t') {
      out_ += "\\t";
    } else if (c == '\r') {
      out_ += "\\r";
    } else if (c < 0x20) {
      escapeUnit(c);
    } else {
      length = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : 2;
      const char32_t codePoint = decodeUtf8(text.substr(i, length)).value_or(U"\uFFFD").front();
      if (codePoint < 0x10000) {
        escapeUnit(static_cast<unsigned>(codePoint));
      } else {
        escapeUnit(static_cast<unsigned>(0xD800 + ((codePoint - 0x10000) >> 10)));
        escapeUnit(static_cast<unsigned>(0xDC00 + ((codePoint - 0x10000) & 0x3FF)));
      }
    }
    i += length;
    plain = i;
  }
  out_.append(text, plain);
  out_.push_back('"');
}

std::optional<std::string> serialize(const Value& value, Writer::Escaping escaping) {
  std::string text;
  Writer writer(text, escaping);
  writer.value(value);
  if (!writer.ok()) return std::nullopt;
  return text;
}

}  // namespace vesko::json
