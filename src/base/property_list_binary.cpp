#include <bit>
#include <cstdint>
#include <optional>

#include "base/property_list_format.h"
#include "base/utf8.h"

namespace vesko {
namespace {

using Result = std::expected<PropertyList, std::string>;

// Layout: header, objects, a table of their offsets, and a trailer that says where the table is.
// All integers are big-endian. An object starts with a byte of kind and size; arrays and
// dictionaries hold the numbers of other objects.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : bytes_(bytes) {}

  Result read() {
    constexpr std::size_t trailerSize = 32;
    if (!bytes_.starts_with("bplist00") || bytes_.size() < 8 + trailerSize) return damaged();
    const std::size_t trailer = bytes_.size() - trailerSize;
    offsetSize_ = byteAt(trailer + 6);
    referenceSize_ = byteAt(trailer + 7);
    objectCount_ = *integerAt(trailer + 8, 8);
    const std::uint64_t top = *integerAt(trailer + 16, 8);
    table_ = *integerAt(trailer + 24, 8);
    const bool sizesFit =
        offsetSize_ >= 1 && offsetSize_ <= 8 && referenceSize_ >= 1 && referenceSize_ <= 8;
    if (!sizesFit || table_ > trailer || objectCount_ > (trailer - table_) / offsetSize_)
      return damaged();
    return object(top, 0);
  }

 private:
  static std::unexpected<std::string> damaged() {
    return std::unexpected(std::string("damaged binary list"));
  }

  std::uint8_t byteAt(std::uint64_t at) const { return static_cast<std::uint8_t>(bytes_[at]); }

  std::optional<std::string_view> slice(std::uint64_t at, std::uint64_t length) const {
    if (at > bytes_.size() || length > bytes_.size() - at) return std::nullopt;
    return bytes_.substr(at, length);
  }

  std::optional<std::uint64_t> integerAt(std::uint64_t at, std::uint64_t size) const {
    const auto field = slice(at, size);
    if (!field) return std::nullopt;
    std::uint64_t value = 0;
    for (const char c : *field) value = value << 8 | static_cast<std::uint8_t>(c);
    return value;
  }

  // Objects may be shared, so that a small list can stand for an enormous one.
  bool spend(std::uint64_t amount) {
    if (amount > budget_) return false;
    budget_ -= amount;
    return true;
  }

  Result object(std::uint64_t number, std::size_t depth) {
    if (depth > PropertyList::maxDepth) return std::unexpected("nested too deeply");
    if (!spend(1)) return std::unexpected("larger than 4 MiB");
    if (number >= objectCount_) return damaged();
    std::uint64_t at = *integerAt(table_ + number * offsetSize_, offsetSize_);
    if (at >= bytes_.size()) return damaged();
    const unsigned kind = byteAt(at) >> 4;
    const unsigned low = byteAt(at) & 15U;
    ++at;
    if (kind <= 3 || kind == 8) return scalar(kind, low, at);

    std::uint64_t count = low;
    if (low == 15) {
      // The size is an integer object of its own.
      if (at >= bytes_.size() || byteAt(at) >> 4 != 1 || (byteAt(at) & 15) > 3) return damaged();
      const std::uint64_t size = std::uint64_t{1} << (byteAt(at) & 15);
      const auto value = integerAt(at + 1, size);
      if (!value) return damaged();
      count = *value;
      at += 1 + size;
    }
    if (count > bytes_.size()) return damaged();
    switch (kind) {
      case 4:
      case 5:
      case 6:
        return text(kind, at, count);
      case 0xA:
        return array(at, count, depth);
      case 0xD:
        return dictionary(at, count, depth);
      default:
        return PropertyList();  // sets, which no property list holds
    }
  }

  Result scalar(unsigned kind, unsigned low, std::uint64_t at) const {
    if (kind == 0) {
      if (low == 8 || low == 9) return PropertyList(low == 9);
      return PropertyList();
    }
    const std::uint64_t size = kind == 8 ? low + 1U : std::uint64_t{1} << low;
    const auto field = slice(at, size);
    if (!field) return damaged();
    if (kind == 1 && size <= 8) {
      // Only eight bytes carry a sign.
      return PropertyList(static_cast<std::int64_t>(*integerAt(at, size)));
    }
    if (kind == 2 && size == 4) {
      const auto bits = static_cast<std::uint32_t>(*integerAt(at, size));
      return PropertyList(static_cast<double>(std::bit_cast<float>(bits)));
    }
    if (kind == 2 && size == 8) return PropertyList(std::bit_cast<double>(*integerAt(at, size)));
    return PropertyList();
  }

  Result text(unsigned kind, std::uint64_t at, std::uint64_t count) {
    const auto field = slice(at, kind == 6 ? count * 2 : count);
    if (!field) return damaged();
    if (!spend(field->size())) return std::unexpected("larger than 4 MiB");
    if (kind == 4) return PropertyList(PropertyList::Data{std::string(*field)});
    std::string result;
    if (kind == 5) {
      result = *field;
      if (!isValidUtf8(result)) return std::unexpected("text that is not ASCII");
      return PropertyList(std::move(result));
    }
    for (std::uint64_t i = 0; i < count; ++i) {
      auto unit = static_cast<char32_t>(*integerAt(at + i * 2, 2));
      if (unit >= 0xD800 && unit < 0xDC00 && i + 1 < count) {
        const auto second = static_cast<char32_t>(*integerAt(at + i * 2 + 2, 2));
        if (second >= 0xDC00 && second < 0xE000) {
          unit = 0x10000 + ((unit - 0xD800) << 10) + (second - 0xDC00);
          ++i;
        }
      }
      if (unit >= 0xD800 && unit < 0xE000) return std::unexpected("text that is not UTF-16");
      appendUtf8(result, unit);
    }
    return PropertyList(std::move(result));
  }

  Result array(std::uint64_t at, std::uint64_t count, std::size_t depth) {
    if (!slice(at, count * referenceSize_)) return damaged();
    PropertyList::Array elements;
    for (std::uint64_t i = 0; i < count; ++i) {
      auto element = object(*integerAt(at + i * referenceSize_, referenceSize_), depth + 1);
      if (!element) return element;
      elements.push_back(std::move(*element));
    }
    return PropertyList(std::move(elements));
  }

  // First the numbers of all keys, then those of all values.
  Result dictionary(std::uint64_t at, std::uint64_t count, std::size_t depth) {
    if (!slice(at, 2 * count * referenceSize_)) return damaged();
    PropertyList::Dictionary entries;
    for (std::uint64_t i = 0; i < count; ++i) {
      const auto key = object(*integerAt(at + i * referenceSize_, referenceSize_), depth + 1);
      if (!key) return key;
      if (!key->text()) return std::unexpected("a key that is no string");
      auto value = object(*integerAt(at + (count + i) * referenceSize_, referenceSize_), depth + 1);
      if (!value) return value;
      entries.insert_or_assign(*key->text(), std::move(*value));
    }
    return PropertyList(std::move(entries));
  }

  const std::string_view bytes_;
  std::uint64_t offsetSize_ = 0;
  std::uint64_t referenceSize_ = 0;
  std::uint64_t objectCount_ = 0;
  std::uint64_t table_ = 0;
  std::uint64_t budget_ = PropertyList::maxBytes;
};

}  // namespace

std::expected<PropertyList, std::string> parseBinaryPropertyList(std::string_view bytes) {
  return Reader(bytes).read();
}

}  // namespace vesko
