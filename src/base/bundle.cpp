#include "base/bundle.h"

#include "base/file.h"

namespace vesko {

Bundle::Bundle(std::filesystem::path path) : path_(std::move(path)) {
  const auto bytes = readFile(path_ / "Contents/Info.plist", PropertyList::maxBytes);
  if (!bytes) return;
  if (auto parsed = PropertyList::parse(*bytes)) info_ = std::move(*parsed);
}

Bundle Bundle::at(std::filesystem::path path) { return Bundle(std::move(path)); }

std::optional<Bundle> Bundle::containing(const std::filesystem::path& file) {
  const std::string& text = file.native();
  const auto found = text.rfind(".app/");
  if (found == std::string::npos) return std::nullopt;
  return Bundle(text.substr(0, found + 4));
}

std::optional<std::string> Bundle::infoString(std::string_view key) const {
  const PropertyList* entry = info_.find(key);
  const std::string* text = entry ? entry->text() : nullptr;
  if (!text) return std::nullopt;
  return *text;
}

std::optional<std::filesystem::path> Bundle::resource(std::string_view name) const {
  auto file = path_ / "Contents/Resources" / name;
  std::error_code error;
  if (!std::filesystem::exists(file, error)) return std::nullopt;
  return file;
}

}  // namespace vesko
