// The two forms of property lists that are read. Any thread.
//
// Read here rather than by a library, because lists come from other people's bundles: nesting and
// the growth by shared objects are bounded, and numbers do not depend on the locale.
#pragma once

#include <expected>
#include <string>
#include <string_view>

#include "base/property_list.h"

namespace vesko {

/// The XML form: the elements of the property list document type, UTF-8, no entities of its own.
std::expected<PropertyList, std::string> parseXmlPropertyList(std::string_view bytes);

/// The binary form, "bplist00".
std::expected<PropertyList, std::string> parseBinaryPropertyList(std::string_view bytes);

}  // namespace vesko
