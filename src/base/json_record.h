// Typed records and their JSON form. A record lists its fields once:
//
//   struct MoveRequest {
//     double x = 0, y = 0;
//     static constexpr auto jsonFields() {
//       return std::tuple{json::field("x", &MoveRequest::x), json::field("y", &MoveRequest::y)};
//     }
//   };
//
// Fields may be bool, integers, double, std::string, enumerations with json::EnumNames, records,
// std::vector and std::optional of these. Decoding: an optional field may be absent or null, every
// other one is required; unknown members are ignored; integers accept 5.0 and refuse 5.5 and what
// does not fit. Encoding: in the order of the list, absent optionals left out. Any thread.
#pragma once

#include <array>
#include <concepts>
#include <expected>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/json.h"

namespace vesko::json {

template <class Record, class Member>
struct Field {
  std::string_view key;
  Member Record::*member;
};

template <class Record, class Member>
constexpr Field<Record, Member> field(std::string_view key, Member Record::*member) {
  return {key, member};
}

/// Specialised per enumeration: `static constexpr std::array values{std::pair{Case, "word"}...}`
/// with std::string_view words.
template <class E>
struct EnumNames;

template <class T>
concept Record = requires { T::jsonFields(); };

template <class T>
concept NamedEnum = std::is_enum_v<T> && requires { EnumNames<T>::values; };

template <NamedEnum E>
constexpr std::string_view wordOf(E value) {
  for (const auto& [candidate, word] : EnumNames<E>::values) {
    if (candidate == value) return word;
  }
  return {};
}

/// What did not fit, as "max_dim: expected an integer". Holds keys and types, never values.
struct DecodeError {
  std::string message;
};

using Decoded = std::expected<void, DecodeError>;

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};
template <class T>
struct IsVector : std::false_type {};
template <class T>
struct IsVector<std::vector<T>> : std::true_type {};

template <class T>
Decoded decodeInto(const Value& from, T& to);

inline Decoded mismatch(std::string_view what) {
  return std::unexpected(DecodeError{"expected " + std::string(what)});
}

inline Decoded within(std::string_view key, Decoded result) {
  if (!result) {
    const bool nested = !result.error().message.starts_with("expected ") &&
                        result.error().message != "missing";
    result.error().message.insert(0, std::string(key) + (nested ? "." : ": "));
  }
  return result;
}

template <Record T>
Decoded decodeRecordInto(const Value& from, T& to) {
  if (!from.asObject()) return mismatch("an object");
  Decoded result;
  const auto decodeField = [&](const auto& field) {
    using MemberType = std::remove_cvref_t<decltype(to.*field.member)>;
    const Value* value = from.find(field.key);
    if (value && !(IsOptional<MemberType>::value && value->isNull())) {
      result = within(field.key, decodeInto(*value, to.*field.member));
    } else if constexpr (!IsOptional<MemberType>::value) {
      result = within(field.key, std::unexpected(DecodeError{"missing"}));
    }
    return result.has_value();
  };
  std::apply([&](const auto&... fields) { (decodeField(fields) && ...); }, T::jsonFields());
  return result;
}

template <class T>
Decoded decodeInto(const Value& from, T& to) {
  if constexpr (Record<T>) {
    return decodeRecordInto(from, to);
  } else if constexpr (IsOptional<T>::value) {
    return decodeInto(from, to.emplace());
  } else if constexpr (IsVector<T>::value) {
    const Array* array = from.asArray();
    if (!array) return mismatch("an array");
    to.clear();
    to.reserve(array->size());
    for (const Value& element : *array) {
      if (auto decoded = decodeInto(element, to.emplace_back()); !decoded)
        return within("[" + std::to_string(to.size() - 1) + "]", std::move(decoded));
    }
    return {};
  } else if constexpr (std::same_as<T, bool>) {
    const auto value = from.asBool();
    if (!value) return mismatch("a boolean");
    to = *value;
    return {};
  } else if constexpr (std::integral<T>) {
    const auto value = from.asInteger();
    if (!value || !std::in_range<T>(*value)) return mismatch("an integer");
    to = static_cast<T>(*value);
    return {};
  } else if constexpr (std::floating_point<T>) {
    const auto value = from.asDouble();
    if (!value) return mismatch("a number");
    to = *value;
    return {};
  } else if constexpr (std::same_as<T, Value>) {
    to = from;
    return {};
  } else if constexpr (NamedEnum<T>) {
    const std::string* word = from.asString();
    for (const auto& [candidate, name] : EnumNames<T>::values) {
      if (word && *word == name) {
        to = candidate;
        return {};
      }
    }
    return mismatch("a known word");
  } else {
    static_assert(std::same_as<T, std::string>);
    const std::string* text = from.asString();
    if (!text) return mismatch("a string");
    to = *text;
    return {};
  }
}

template <class T>
std::expected<T, DecodeError> decode(std::string_view text) {
  auto value = parse(text);
  if (!value) return std::unexpected(DecodeError{std::move(value.error())});
  T result{};
  if (auto decoded = decodeInto(*value, result); !decoded)
    return std::unexpected(std::move(decoded.error()));
  return result;
}

template <class T>
void write(Writer& writer, const T& value) {
  if constexpr (Record<T>) {
    const auto writeField = [&](const auto& field) {
      const auto& member = value.*field.member;
      if constexpr (IsOptional<std::remove_cvref_t<decltype(member)>>::value) {
        if (!member) return;
        writer.key(field.key);
        write(writer, *member);
      } else {
        writer.key(field.key);
        write(writer, member);
      }
    };
    writer.beginObject();
    std::apply([&](const auto&... fields) { (writeField(fields), ...); }, T::jsonFields());
    writer.endObject();
  } else if constexpr (IsVector<T>::value) {
    writer.beginArray();
    for (const auto& element : value) write(writer, element);
    writer.endArray();
  } else if constexpr (std::same_as<T, bool>) {
    writer.value(value);
  } else if constexpr (std::signed_integral<T>) {
    writer.value(static_cast<std::int64_t>(value));
  } else if constexpr (std::unsigned_integral<T>) {
    writer.value(static_cast<std::uint64_t>(value));
  } else if constexpr (NamedEnum<T>) {
    writer.value(wordOf(value));
  } else if constexpr (std::same_as<T, std::string>) {
    writer.value(std::string_view(value));
  } else {
    writer.value(value);
  }
}

/// Nothing when a number or a text of the record cannot be expressed in JSON.
template <class T>
std::optional<std::string> encode(const T& record,
                                  Writer::Escaping escaping = Writer::Escaping::utf8) {
  std::string text;
  Writer writer(text, escaping);
  write(writer, record);
  if (!writer.ok()) return std::nullopt;
  return text;
}

}  // namespace vesko::json
