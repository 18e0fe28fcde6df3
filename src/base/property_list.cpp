#include "base/property_list.h"

#include <plist/plist.h>

#include <cstdlib>
#include <memory>

namespace vesko {
namespace {

struct NodeDeleter {
  void operator()(plist_t node) const { plist_free(node); }
};
using Node = std::unique_ptr<std::remove_pointer_t<plist_t>, NodeDeleter>;

std::string takeText(char* text) {
  std::string result(text ? text : "");
  std::free(text);
  return result;
}

// The library frees and copies its trees recursively, so a hostile nesting must be refused before
// it sees it. Counting opening tags over-estimates at worst.
bool tooDeep(std::string_view xml) {
  std::size_t depth = 0;
  for (std::size_t at = xml.find('<'); at != std::string_view::npos; at = xml.find('<', at + 1)) {
    const auto tag = xml.substr(at + 1);
    const bool closes = tag.starts_with("/array") || tag.starts_with("/dict");
    if (closes && depth > 0) --depth;
    const bool opens = tag.starts_with("array") || tag.starts_with("dict");
    if (opens && ++depth > PropertyList::maxDepth) return true;
  }
  return false;
}

std::expected<PropertyList, std::string> convert(plist_t node, std::size_t depth) {
  if (depth > PropertyList::maxDepth) return std::unexpected("nested too deeply");
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return PropertyList(value != 0);
    }
    case PLIST_UINT: {
      std::uint64_t value = 0;
      plist_get_uint_val(node, &value);
      return PropertyList(static_cast<std::int64_t>(value));
    }
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(node, &value);
      return PropertyList(value);
    }
    case PLIST_STRING: {
      char* text = nullptr;
      plist_get_string_val(node, &text);
      return PropertyList(takeText(text));
    }
    case PLIST_DATA: {
      char* bytes = nullptr;
      std::uint64_t length = 0;
      plist_get_data_val(node, &bytes, &length);
      PropertyList::Data data{bytes ? std::string(bytes, length) : std::string()};
      std::free(bytes);
      return PropertyList(std::move(data));
    }
    case PLIST_ARRAY: {
      PropertyList::Array elements;
      const std::uint32_t count = plist_array_get_size(node);
      elements.reserve(count);
      for (std::uint32_t i = 0; i < count; ++i) {
        auto element = convert(plist_array_get_item(node, i), depth + 1);
        if (!element) return element;
        elements.push_back(std::move(*element));
      }
      return PropertyList(std::move(elements));
    }
    case PLIST_DICT: {
      PropertyList::Dictionary entries;
      plist_dict_iter iterator = nullptr;
      plist_dict_new_iter(node, &iterator);
      const std::unique_ptr<void, decltype(&std::free)> owned(iterator, &std::free);
      for (;;) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, iterator, &key, &item);
        if (!item) {
          std::free(key);
          break;
        }
        std::string name = takeText(key);
        auto value = convert(item, depth + 1);
        if (!value) return value;
        entries.insert_or_assign(std::move(name), std::move(*value));
      }
      return PropertyList(std::move(entries));
    }
    default:
      return PropertyList();
  }
}

// A new node of the library, or null for what has no form there.
plist_t makeNode(const PropertyList& list) {
  if (const auto* flag = list.as<bool>()) return plist_new_bool(*flag ? 1 : 0);
  if (const auto* number = list.as<std::int64_t>())
    return plist_new_uint(static_cast<std::uint64_t>(*number));
  if (const auto* number = list.as<double>()) return plist_new_real(*number);
  if (const auto* text = list.text()) return plist_new_string(text->c_str());
  if (const auto* data = list.as<PropertyList::Data>())
    return plist_new_data(data->bytes.data(), data->bytes.size());
  if (const auto* array = list.as<PropertyList::Array>()) {
    plist_t node = plist_new_array();
    for (const auto& element : *array) {
      if (plist_t child = makeNode(element)) plist_array_append_item(node, child);
    }
    return node;
  }
  if (const auto* entries = list.dictionary()) {
    plist_t node = plist_new_dict();
    for (const auto& [key, value] : *entries) {
      if (plist_t child = makeNode(value)) plist_dict_set_item(node, key.c_str(), child);
    }
    return node;
  }
  return nullptr;
}

}  // namespace

const PropertyList* PropertyList::find(std::string_view key) const {
  const Dictionary* entries = dictionary();
  if (!entries) return nullptr;
  const auto found = entries->find(key);
  return found == entries->end() ? nullptr : &found->second;
}

std::expected<PropertyList, std::string> PropertyList::parse(std::string_view bytes) {
  if (bytes.size() > maxBytes) return std::unexpected("larger than 4 MiB");
  const auto length = static_cast<std::uint32_t>(bytes.size());
  plist_t parsed = nullptr;
  if (bytes.starts_with("bplist")) {
    plist_from_bin(bytes.data(), length, &parsed);
  } else if (tooDeep(bytes)) {
    return std::unexpected("nested too deeply");
  } else {
    plist_from_xml(bytes.data(), length, &parsed);
  }
  const Node root(parsed);
  if (!root) return std::unexpected("not a property list");
  return convert(root.get(), 0);
}

std::string PropertyList::toXml() const {
  const Node root(makeNode(*this));
  char* text = nullptr;
  std::uint32_t length = 0;
  if (root) plist_to_xml(root.get(), &text, &length);
  std::string result(text ? text : "", length);
  std::free(text);
  return result;
}

}  // namespace vesko
