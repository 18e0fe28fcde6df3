#include "base/property_list.h"

#include "base/property_list_format.h"

namespace vesko {

const PropertyList* PropertyList::find(std::string_view key) const {
  const Dictionary* entries = dictionary();
  if (!entries) return nullptr;
  const auto found = entries->find(key);
  return found == entries->end() ? nullptr : &found->second;
}

std::expected<PropertyList, std::string> PropertyList::parse(std::string_view bytes) {
  if (bytes.size() > maxBytes) return std::unexpected("larger than 4 MiB");
  return bytes.starts_with("bplist") ? parseBinaryPropertyList(bytes) : parseXmlPropertyList(bytes);
}

}  // namespace vesko
