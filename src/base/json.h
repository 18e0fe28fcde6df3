// JSON values (RFC 8259), strict parsing and compact writing. Any thread.
//
// Parsing refuses invalid UTF-8, trailing bytes, NaN, infinities, numbers beyond double range and
// nesting deeper than is said. A repeated key keeps every member; look-ups return the last.
#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace vesko::json {

inline constexpr std::size_t maxDepth = 64;

class Value;
using Array = std::vector<Value>;
using Member = std::pair<std::string, Value>;
using Object = std::vector<Member>;

class Value {
 public:
  Value() = default;
  Value(std::nullptr_t) {}
  Value(bool value) : data_(value) {}
  Value(int value) : data_(std::int64_t{value}) {}
  Value(std::int64_t value) : data_(value) {}
  Value(std::uint64_t value) : data_(value) {}
  Value(double value) : data_(value) {}
  Value(const char* text) : data_(std::string(text)) {}
  Value(std::string_view text) : data_(std::string(text)) {}
  Value(std::string text) : data_(std::move(text)) {}
  Value(Array elements) : data_(std::move(elements)) {}
  Value(Object members) : data_(std::move(members)) {}

  bool isNull() const { return std::holds_alternative<std::monostate>(data_); }
  std::optional<bool> asBool() const;
  /// Also a floating-point number with an integral value, as 5.0.
  std::optional<std::int64_t> asInteger() const;
  std::optional<double> asDouble() const;
  const std::string* asString() const { return std::get_if<std::string>(&data_); }
  std::string* asString() { return std::get_if<std::string>(&data_); }
  const Array* asArray() const { return std::get_if<Array>(&data_); }
  Array* asArray() { return std::get_if<Array>(&data_); }
  const Object* asObject() const { return std::get_if<Object>(&data_); }
  Object* asObject() { return std::get_if<Object>(&data_); }

  /// The last member of that name; null when this is no object or has none.
  const Value* find(std::string_view key) const;

  using Data = std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::string,
                            Array, Object>;
  const Data& data() const { return data_; }

 private:
  Data data_;
};

/// The error is a short description of what is malformed; it never quotes the input. A value nests
/// at most `depth` arrays and objects.
std::expected<Value, std::string> parse(std::string_view text, std::size_t depth = maxDepth);

/// Appends tokens to a text; commas are its own concern. The caller nests correctly.
class Writer {
 public:
  enum class Escaping { utf8, ascii };

  /// Escaping::ascii writes every character beyond ASCII as \u escapes.
  explicit Writer(std::string& out, Escaping escaping = Escaping::utf8)
      : out_(out), escaping_(escaping) {}

  void beginObject() { open('{'); }
  void endObject() { close('}'); }
  void beginArray() { open('['); }
  void endArray() { close(']'); }
  void key(std::string_view name);
  void null();
  void value(bool value);
  void value(std::int64_t value);
  void value(std::uint64_t value);
  /// A number that JSON cannot express makes the writer fail; see ok().
  void value(double value);
  void value(std::string_view text);
  void value(const Value& value);

  /// False once a non-finite number or text that is not UTF-8 was written.
  bool ok() const { return ok_; }

 private:
  void open(char bracket);
  void close(char bracket);
  void separate();
  void quoted(std::string_view text);

  std::string& out_;
  Escaping escaping_;
  bool needsComma_ = false;
  bool ok_ = true;
};

/// Nothing when the value holds a number or text that JSON cannot express.
std::optional<std::string> serialize(const Value& value,
                                     Writer::Escaping escaping = Writer::Escaping::utf8);

}  // namespace vesko::json
