// Apple property lists (man 5 plist): reading XML and binary ones, writing XML. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <map>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vesko {

class PropertyList {
 public:
  using Array = std::vector<PropertyList>;
  using Dictionary = std::map<std::string, PropertyList, std::less<>>;

  /// Larger or deeper lists are refused: the ones this program reads hold a few dozen entries.
  static constexpr std::size_t maxBytes = 4 << 20;
  static constexpr std::size_t maxDepth = 64;

  PropertyList() = default;
  PropertyList(bool value) : data_(value) {}
  PropertyList(std::int64_t value) : data_(value) {}
  PropertyList(double value) : data_(value) {}
  PropertyList(std::string text) : data_(std::move(text)) {}
  PropertyList(const char* text) : data_(std::string(text)) {}
  PropertyList(Array elements) : data_(std::move(elements)) {}
  PropertyList(Dictionary entries) : data_(std::move(entries)) {}

  /// Raw bytes, the <data> element.
  struct Data {
    std::string bytes;
    bool operator==(const Data&) const = default;
  };
  PropertyList(Data data) : data_(std::move(data)) {}

  /// The typed content, or null when it has another type.
  template <class T>
  const T* as() const {
    return std::get_if<T>(&data_);
  }
  const Dictionary* dictionary() const { return as<Dictionary>(); }
  const std::string* text() const { return as<std::string>(); }

  /// The entry of a dictionary; null when this is none or lacks it.
  const PropertyList* find(std::string_view key) const;

  /// The error is a short description that never quotes the input. Integers beyond 64 bits signed
  /// become the type that stands for unused ones; of a repeated key the last entry counts.
  static std::expected<PropertyList, std::string> parse(std::string_view bytes);
  /// Keys and texts are UTF-8; what XML cannot express in them becomes U+FFFD. Empty for a list of
  /// an unused type.
  std::string toXml() const;

  bool operator==(const PropertyList&) const = default;

 private:
  // monostate stands for types that nothing here uses (dates, UIDs); they are dropped on writing.
  std::variant<std::monostate, bool, std::int64_t, double, std::string, Data, Array, Dictionary>
      data_;
};

}  // namespace vesko
